#include "tests/fwctl/virtual-set.h"

#include "common/files/whole-file.h"

namespace fs = std::filesystem;

namespace
{
const fs::path kExamples = EXAMPLES;
} // namespace

VirtualSet::VirtualSet(bool isRootless) : Television(tarnwick::Making{VSET, {}, isRootless})
{
    const fs::path images = kExamples / "images";
    putLibrary(kExamples / "tuner.so");
    putLibrary(kExamples / "EXT-soundbar.so");
    putLibrary(kExamples / "panel.so", Controls::kSystem);
    putFirmware(images / "1.1/Panel");
    putFirmware(images / "1.1/Soundbar");
    putPackage(images / "1.1/empTuner.img", Package::kDelivered);
    putHardware(images / "1.0/hardware");
}

Outcome VirtualSet::run(const std::string& script)
{
    Outcome outcome;
    tarnwick::Alone alone;
    alone.limit.reset(); // the test has one
    alone.takeLine = [&](const std::string& line) { outcome.out += line + "\n"; };
    outcome.status = runAlone({"sh", "-c", "PATH=" FWCTL_DIRECTORY ":$PATH; " + script}, alone);
    outcome.err = launcherOutput();
    return outcome;
}

void VirtualSet::write(const std::string& path, const std::string& content, int mode)
{
    Television::write(path, content);
    fs::permissions(outside(path), static_cast<fs::perms>(mode));
}

void VirtualSet::addSystemImage(const std::string& firmwareName)
{
    const fs::path image = kExamples / "images/1.1/Panel";
    const std::string directory = "/usr/lib/firmware/ext/" + firmwareName + "/";
    write(directory + "info.json", common::readWhole(image / "info.json"));
    write(directory + firmwareName + ".bin", common::readWhole(image / "Panel.bin"));
}

void VirtualSet::addModule(const std::string& name)
{
    putLibrary(fs::path(FAULTY_MODULES) / (name + ".so"));
}

std::string moments(const std::string& script)
{
    return ". " MOMENTS "; " + script;
}
