#include "virtual-set.h"

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
constexpr uid_t kUpdateUser = 901;
constexpr gid_t kSystemGroup = 900;
const fs::path kExamples = EXAMPLES;

void copyInto(const fs::path& from, const fs::path& directory)
{
    fs::create_directories(directory);
    fs::copy(from, directory / from.filename(), fs::copy_options::recursive);
}
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
    copyInto(kExamples / "tuner.so", file("/prd/usr/fwupdate/controls"));
    copyInto(kExamples / "EXT-soundbar.so", file("/prd/usr/fwupdate/controls"));
    copyInto(kExamples / "panel.so", file("/usr/fwupdate/controls"));
    copyInto(kExamples / "images/1.1/Panel", file("/usr/lib/firmware/ext"));
    copyInto(kExamples / "images/1.1/Soundbar", file("/usr/lib/firmware/ext"));
    copyInto(kExamples / "images/1.1/empTuner.img", file("/opt/usr/apps/appbinarymanager"));
    copyInto(kExamples / "images/1.0/hardware", file("/var/lib"));
    for (const auto& entry : fs::recursive_directory_iterator(file("/var/lib/hardware"))) {
        if (chown(entry.path().c_str(), kUpdateUser, kSystemGroup) != 0)
            throw std::runtime_error("chown failed: these tests need root");
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
    copyInto(fs::path(FAULTY_MODULES) / (name + ".so"), file("/prd/usr/fwupdate/controls"));
}

std::string readFile(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
