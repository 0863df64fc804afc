// The maker's command: the check and the trial of the example tuner, the help of the programs, and how large
// they are.

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <unistd.h>

#include "bench/child.h"
#include "bench/measure.h"

namespace
{

namespace fs = std::filesystem;

const std::string kExamples = EXAMPLES;
const std::string kTuner = kExamples + "/tuner.so";
const std::string kPackage = kExamples + "/images/1.1/empTuner.img";
const std::string kHardware = kExamples + "/images/1.0/hardware";

// As it is installed: without what a debugger wants.
double strippedKilobytes(const std::string& program)
{
    std::string file = fs::temp_directory_path() / "bench-stripped-XXXXXX";
    const int descriptor = mkstemp(file.data());
    if (descriptor < 0) {
        throw std::runtime_error("no temporary file");
    }
    close(descriptor);
    bench::runProgram({"strip", "-o", file, program});
    const auto size = static_cast<double>(fs::file_size(file));
    fs::remove(file);
    return size / 1024;
}

void declare()
{
    const auto declareOne = [](const std::string& name, const std::vector<std::string>& words) {
        bench::add(name, [words](bench::Sample& sample) { sample.time([&] { bench::runProgram(words); }); });
    };
    if (!bench::isTrial()) { // the tests of fwmod have it for its function, and it takes seconds
        declareOne("check", {FWMOD_PROGRAM, "check", kTuner, "--package", kPackage, "--hardware", kHardware});
        declareOne("try", {FWMOD_PROGRAM, "try", kTuner, "--package", kPackage, "--hardware", kHardware});
    }
    declareOne("help/fwmod", {FWMOD_PROGRAM, "--help"});
    declareOne("help/vset", {VSET_PROGRAM, "--help"});
    declareOne("true", {"true"});
    for (const std::string program : {TARNWICK_PROGRAM, VSET_PROGRAM, FWCTL_PROGRAM, FWMOD_PROGRAM}) {
        bench::add("size/" + fs::path(program).filename().string(), [program](bench::Sample& sample) {
            sample.time([&] { sample.note("kilobytes", strippedKilobytes(program)); });
        });
    }
}

} // namespace

int main(int argc, char** argv)
{
    return bench::main(argc, argv, declare);
}
