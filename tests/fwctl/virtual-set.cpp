#include "tests/fwctl/virtual-set.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace
{
const fs::path kExamples = EXAMPLES;
} // namespace

VirtualSet::VirtualSet()
{
    char name[] = "/tmp/fwctl-test-XXXXXX";
    path_ = mkdtemp(name) != nullptr ? name : throw std::runtime_error("mkdtemp failed");
    const Outcome made = runProgram({VSET, "new", path_});
    if (made.status != 0) {
        fs::remove_all(path_); // no destructor runs for what was not made
        throw std::runtime_error("vset new: " + made.err);
    }
    const fs::path images = kExamples / "images";
    put({"library", kExamples / "tuner.so", kExamples / "EXT-soundbar.so"});
    put({"library", "--system", kExamples / "panel.so"});
    put({"firmware", images / "1.1/Panel", images / "1.1/Soundbar"});
    put({"package", "--delivered", images / "1.1/empTuner.img"});
    put({"hardware", images / "1.0/hardware"});
}

void VirtualSet::put(std::vector<std::string> words)
{
    words.insert(words.begin(), {VSET, "put", path_});
    const Outcome outcome = runProgram(words);
    if (outcome.status != 0) {
        throw std::runtime_error(outcome.err);
    }
}

VirtualSet::~VirtualSet()
{
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

Outcome VirtualSet::run(const std::string& script)
{
    return runProgram({VSET, "run", path_, "--", "sh", "-c", "PATH=" FWCTL_DIRECTORY ":$PATH; " + script});
}

fs::path VirtualSet::file(const std::string& path) const
{
    return path_ / (path.rfind("/usr/", 0) == 0 ? path.substr(1) : "root" + path);
}

void VirtualSet::write(const std::string& path, const std::string& content, int mode)
{
    fs::create_directories(file(path).parent_path());
    std::ofstream(file(path), std::ios::binary) << content;
    chmod(file(path).c_str(), static_cast<mode_t>(mode));
}

void VirtualSet::addSystemImage(const std::string& firmwareName)
{
    const fs::path image = kExamples / "images/1.1/Panel";
    const std::string directory = "/usr/lib/firmware/ext/" + firmwareName + "/";
    write(directory + "info.json", readFile(image / "info.json"));
    write(directory + firmwareName + ".bin", readFile(image / "Panel.bin"));
}

void VirtualSet::addModule(const std::string& name)
{
    put({"library", fs::path(FAULTY_MODULES) / (name + ".so")});
}

std::string readFile(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
