#include "tests/service/support/television.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "common/files/temporary-directory.h"
#include "common/files/whole-file.h"
#include "sdk/examples/common/firmware.h"
#include "sdk/examples/common/flash.h"
#include "tests/support/replaced-file.h"
#include "vset/television/users.h"

namespace service
{

using testing_support::replaceFile;
using testing_support::replaceWith;
using testing_support::replaceWithCopy;

namespace
{

constexpr const char* kVset = VSET_PROGRAM;
constexpr const char* kSemaphoreProgram = SEMAPHORE_PROGRAM;
const fs::path kExampleLibraries = EXAMPLE_LIBRARIES;
const fs::path kExampleImages = kExampleLibraries / "images";
const fs::path kScriptedLibraries = SCRIPTED_LIBRARIES;

constexpr const char* kHardware = "/var/lib/hardware";

struct Example {
    const char* library;
    const char* chip;
    Television::Controls controls;
};
constexpr Example kExamples[] = {
    {"tuner", "tuner", Television::Controls::kProduct},
    {"panel", "panel", Television::Controls::kSystem},
    {"EXT-soundbar", "soundbar", Television::Controls::kProduct},
};

void makePackage(const Files& files, const fs::path& package)
{
    const common::TemporaryDirectory tree("service-package-");
    for (const auto& [name, content] : files) {
        replaceFile(tree / name, content);
    }
    fs::permissions(tree.path(), fs::perms(0755));
    replaceWith(package, [&](const fs::path& unfinished) {
        runOrThrow(
            {"mksquashfs", tree.path(), unfinished, "-noappend", "-all-root", "-quiet", "-no-progress"});
    });
}

} // namespace

unsigned int imageChecksum(const std::string& image)
{
    return systemCrc32(reinterpret_cast<const unsigned char*>(image.data()), image.size());
}

std::string formatInformation(const Information& information, const std::string& image)
{
    Json::Value json;
    json["version"] = information.version;
    json["crc"] = imageChecksum(image);
    json["expected_time"] = information.expectedSeconds;
    json["ui_use"] = information.uiUse;
    return json.toStyledString();
}

fs::path vsetProgram()
{
    return kVset;
}

Television::Television() : tarnwick::Television(kVset) {}

// ---- Contents ----

void Television::installExample(const std::string& library)
{
    const auto* example = std::find_if(std::begin(kExamples), std::end(kExamples),
                                       [&](const Example& each) { return each.library == library; });
    if (example == std::end(kExamples)) {
        throw std::runtime_error("there is no example " + library);
    }
    putLibrary(kExampleLibraries / (library + ".so"), example->controls);
    putHardware(kExampleImages / "1.0/hardware" / example->chip);
    const std::string chip = std::string(kHardware) + "/" + example->chip;
    installed_[chip] = fs::last_write_time(outside(chip));
}

bool Television::isChanged(const std::string& path) const
{
    return fs::last_write_time(outside(path)) != installed_.at(path);
}

std::vector<unsigned char> Television::activeFirmware(const std::string& chip) const
{
    const auto firmware =
        SlottedFlash(outside(std::string(kHardware) + "/" + chip), std::chrono::milliseconds(0))
            .activeFirmware();
    if (!firmware) {
        throw std::runtime_error("the hardware " + chip + " has no intact firmware: " + std::strerror(errno));
    }
    return *firmware;
}

std::string Television::activeVersion(const std::string& chip) const
{
    return SlottedFlash(outside(std::string(kHardware) + "/" + chip), std::chrono::milliseconds(0))
        .activeVersion()
        .value_or("none");
}

std::vector<unsigned char> Television::exampleFirmware(const std::string& firmwareName,
                                                       const std::string& version)
{
    const std::string file =
        common::readWhole(kExampleImages / version / firmwareName / (firmwareName + ".bin"));
    const size_t line = file.find('\n') + 1; // the rest is what the hardware gets
    return {file.begin() + static_cast<std::ptrdiff_t>(line), file.end()};
}

fs::path Television::examplePackage(const std::string& identifier, const std::string& version)
{
    return kExampleImages / version / (identifier + ".img");
}

void Television::installScripted(const std::string& name, const Json::Value& script, Controls where,
                                 const std::string& variant)
{
    const char* controls =
        where == Controls::kSystem ? "/usr/fwupdate/controls/" : "/prd/usr/fwupdate/controls/";
    write(std::string(kHardware) + "/" + name + ".json", script.toStyledString());
    replaceWithCopy(kScriptedLibraries / (variant + ".so"), outside(controls + name + ".so"));
}

std::vector<std::string> Television::calls() const
{
    std::vector<std::string> lines;
    std::istringstream in(read(std::string(kHardware) + "/calls"));
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string Television::packagePath(const std::string& identifier)
{
    return "/opt/usr/apps/appbinarymanager/" + identifier + ".img";
}

std::string Television::mountPoint(const std::string& identifier)
{
    return "/opt/usr/apps/appbinarymanager/emps/" + identifier;
}

std::string Television::imageOf(const std::string& name)
{
    std::string image = "firmware of " + name + "\n";
    for (int block = 0; block < 2000; ++block) {
        image += name + std::to_string(block * 7919) + '\0';
    }
    return image;
}

Files Television::packageFiles(const std::string& name, const Information& information)
{
    return {{name + ".bin", imageOf(name)}, {"info.json", formatInformation(information, imageOf(name))}};
}

void Television::deliver(const std::string& identifier, const Files& files)
{
    makePackage(files, outside(packagePath(identifier)));
}

void Television::deliverFile(const std::string& identifier, const fs::path& package)
{
    replaceWithCopy(package, outside(packagePath(identifier)));
}

void Television::deliverFor(const std::string& name, const Information& information)
{
    deliver("emp" + name, packageFiles(name, information));
}

void Television::feed(const std::string& identifier, const Files& files)
{
    makePackage(files, outside("/srv/feed/" + identifier + ".img"));
}

void Television::feedFile(const std::string& identifier, const fs::path& package)
{
    replaceWithCopy(package, outside("/srv/feed/" + identifier + ".img"));
}

// ---- Encrypted images ----

void Television::installSignatureLibrary()
{
    runOrThrow(
        {"cmake", "--install", BUILD_DIRECTORY, "--prefix", set() / "usr", "--component", "signature"});
    putSigningKey(fs::path(TEST_KEYS) / "maker.pub.pem");
}

void Television::insertStick(const std::string& firmwareName, const std::string& version,
                             const std::string& signer)
{
    write(kContentKeyFile, std::string(64, 'c') + "\n");
    fs::permissions(outside(kContentKeyFile), fs::perms(0600));
    const fs::path stick = set() / "stick"; // on this machine, as a person has it in the hand
    fs::create_directories(stick);
    const std::string file = firmwareName + ".bin";
    runOrThrow({FWMOD_PROGRAM, "usb", "--version-header", version, "--payload",
                kExampleImages / version / firmwareName / file, "--key-file", outside(kContentKeyFile),
                "--sign-key", fs::path(TEST_KEYS) / (signer + ".pem"), "-o", stick / file});
    putStick(stick);
}

// ---- Platform ----

const vset::ControlClient& Television::platform()
{
    if (!platform_) {
        platform_.emplace(vset::ControlClient::ofSet(set()));
    }
    return *platform_;
}

void Television::waitForPlatform(const std::function<bool(const Json::Value&)>& isSo, const std::string& what)
{
    try {
        platform().waitUntil(isSo, kPatience);
    } catch (const vset::ControlError& error) {
        throw std::runtime_error("this did not happen: " + what + " (" + error.what() + ")\n" + logTail());
    }
}

bool Television::ownsBusName(const std::string& name)
{
    return !ownerOf(name).empty();
}

void Television::raiseFlag(const std::string& flag)
{
    runOrThrow({kVset, "exec", set(), "--", "dbus-send", "--system", "--print-reply",
                "--dest=org.pellor.platform", "/org/pellor/platform",
                "org.pellor.platform.Services.RaiseFlag", "string:" + flag});
}

// ---- Other programs ----

void Television::killService(const std::string& name)
{
    runOrThrow({kVset, "exec", set(), "--", "sh", "-c", "kill -9 $(pidof " + name + ")"});
}

void Television::crashService(const std::string& name, std::chrono::milliseconds downtime)
{
    platform_.reset();
    runOrThrow(
        {kVset, "fault", set(), "service", name, "crash", "--delay", std::to_string(downtime.count())});
}

void Television::waitForService(const std::string& busName, const std::string& ownerBefore)
{
    const auto isBack = [&] {
        const std::string owner = ownerOf(busName);
        return !owner.empty() && owner != ownerBefore;
    };
    waitUntil(isBack, busName + " is back");
}

std::string Television::ownerOf(const std::string& busName)
{
    const Output answer =
        execute({"dbus-send", "--system", "--print-reply=literal", "--dest=org.freedesktop.DBus",
                 "/org/freedesktop/DBus", "org.freedesktop.DBus.GetNameOwner", "string:" + busName});
    return answer.status == 0 ? answer.text : "";
}

Output Television::semaphore(const std::string& verb, bool asRoot)
{
    std::vector<std::string> words;
    if (!asRoot) {
        words = {"setpriv",
                 "--reuid",
                 std::to_string(vset::kUpdateUser),
                 "--regid",
                 std::to_string(vset::kSystemGroup),
                 "--clear-groups",
                 "--no-new-privs"};
    }
    words.insert(words.end(), {kSemaphoreProgram, verb});
    return execute(words);
}

} // namespace service
