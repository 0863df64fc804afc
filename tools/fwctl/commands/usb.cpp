// fwctl usb check|install DIR --key-file FILE
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

#include "common/daemon/daemon-events.h"
#include "common/files/content-key.h"
#include "common/files/regular-file.h"
#include "common/json-text.h"
#include "tools/fwctl/commands/command.h"
#include "tools/fwctl/modules/daemon-log.h"
#include "tools/fwctl/modules/examination.h"
#include "tools/fwctl/modules/isolated.h"
#include "tools/fwctl/modules/registry.h"
#include "tools/fwctl/output.h"
#include "tools/fwctl/turn/power-lock.h"
#include "tools/fwctl/turn/update-child.h"
#include "tools/fwctl/turn/update-turn.h"

namespace fwctl
{

namespace
{
using Kind = common::DaemonEventKind;

constexpr const char* kTooShort = " is too short for an encrypted image"; // in our words

struct UsbOptions {
    std::string directory;
    std::string keyFile;
    bool json = false;
    bool verbose = false;
};

// The daemon glues the image's name to the directory as it is.
std::string requireDirectory(std::string directory)
{
    struct stat status = {};
    if (stat(directory.c_str(), &status) != 0) {
        throw common::Failure("cannot look into " + directory + ": " + std::strerror(errno) +
                              " (is the stick in, and mounted?)");
    }
    if (!S_ISDIR(status.st_mode)) {
        throw common::Failure(directory + " is not a directory: name the one that holds the NAME.bin files");
    }
    return directory.back() == '/' ? directory : directory + "/";
}

// ---- What the probe says of a module ----

// Why a module's image is not taken: the last error after its path or its name stood in a message. Only a
// file without a whole IV is refused namelessly.
std::string reasonFor(const std::string& path, const std::string& firmwareName,
                      const std::vector<std::string>& messages)
{
    constexpr off_t kIvSize = 16;
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && status.st_size < kIvSize) {
        return path + kTooShort;
    }
    std::string reason;
    bool isOurs = false;
    for (const std::string& message : messages) {
        if (message.find(".bin") != std::string::npos) {
            isOurs = message.find(path) != std::string::npos;
        }
        const bool isNamed = message.rfind("Error: " + firmwareName + " ", 0) == 0;
        if (isNamed || (isOurs && common::isComplaint(message))) {
            reason = message;
        }
    }
    return reason;
}

// `first`: the event's first value; nothing for any.
bool tells(const std::vector<std::string>& messages, Kind kind,
           const std::optional<std::string>& first = std::nullopt)
{
    return std::any_of(messages.begin(), messages.end(), [&](const std::string& message) {
        const common::DaemonEvent event = common::readDaemonMessage(message);
        return event.kind == kind && (!first || event.values[0] == *first);
    });
}

// Also what this user may not look at: the daemon has said why it could not be opened.
bool isThere(const std::string& path)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 || errno != ENOENT;
}

// "newer", "not-newer", "refused", "no-image" or "not-taken".
const char* resultOf(const Json::Value& told, bool takesImages)
{
    if (!takesImages) {
        return "not-taken";
    }
    if (!isThere(told["image"].asString())) {
        return "no-image";
    }
    if (told["newer"].asBool()) {
        return "newer";
    }
    return told["reason"].asString().empty() ? "not-newer" : "refused";
}

Json::Value describe(FWUpdateSymbol& module, const std::string& directory,
                     const std::vector<std::string>& messages)
{
    const std::string path = directory + module.getFirmwareName() + ".bin";
    Json::Value told;
    told["module"] = module.getLibName();
    told["image"] = module.isEMP ? Json::Value(path) : Json::Value();
    told["newer"] = tells(messages, Kind::kNewerOnStick, module.getFirmwareName());
    told["pending"] = module.getNeedUpdate();
    told["expected_time"] = module.getExpectedUpdateTime();
    told["reason"] =
        module.isEMP ? reasonFor(path, module.getFirmwareName(), messages) : "takes no encrypted images";
    told["result"] = resultOf(told, module.isEMP);
    return told;
}

// The daemon's code opens what is there, and waits for ever for the other end of a pipe.
void requireRegularImage(const FWUpdateSymbol& module, const std::string& directory)
{
    const std::string path = directory + module.getFirmwareName() + ".bin";
    const std::string problem = module.isEMP ? common::problemOfSpecialFile(path) : "";
    if (!problem.empty()) {
        throw common::Failure(module.getLibName() + ": " + path + " " + problem +
                              ": remove it from the stick, or copy the image anew");
    }
}

// modules, expected_time (seconds, of all together) and count (of those to install).
Json::Value probe(FWUpdateSymbolManager& manager, const common::ContentKey& key, const std::string& directory,
                  UpdateLink& link)
{
    if (access(directory.c_str(), X_OK) != 0) { // root may look into what the daemon's user may not
        throw common::Failure("the daemon's user cannot look into " + directory + ": " +
                              std::strerror(errno));
    }
    for (const FWUpdateSymbol& module : manager.firmwareItems) {
        requireRegularImage(module, directory);
    }
    takeDaemonMessages();
    int seconds = 0;
    unsigned int count = 0;
    manager.getFirmwareUpdateTime(key.data(), directory.c_str(), seconds);
    const std::vector<std::string> messages = takeDaemonMessages();
    Json::Value modules(Json::arrayValue);
    for (FWUpdateSymbol& module : manager.firmwareItems) {
        modules.append(describe(module, directory, messages));
        count += module.getNeedUpdate() ? 1 : 0;
    }
    if (tells(messages, Kind::kNoSignatureLibrary)) {
        link.say("fwctl: this set has no signature library: every image counts as signed");
    }
    Json::Value found;
    found["modules"] = modules;
    found["expected_time"] = seconds;
    found["count"] = count;
    return found;
}

// What the daemon's words most often mean.
std::string explain(const std::string& reason)
{
    constexpr std::pair<Kind, const char*> kMeanings[] = {
        {Kind::kRefusedAsNotSigned, ": it is cut off, altered, or signed by somebody this set does not know"},
        {Kind::kVersionsUnknown, ": nothing sensible came out of the decryption; is it the right key?"},
        {Kind::kImageNotOpened, ": the file cannot be read"},
        {Kind::kNoExpectedTime, ": the library cannot install encrypted images"},
    };
    const Kind kind = common::readDaemonMessage(reason).kind;
    for (const auto& [known, meaning] : kMeanings) {
        if (kind == known) {
            return meaning;
        }
    }
    const bool isTooShort = reason.find(kTooShort) != std::string::npos;
    return isTooShort ? ": copy the image anew" : "";
}

std::string usbVerdictOn(const Json::Value& module)
{
    const std::string result = module["result"].asString();
    const std::string reason = module["reason"].asString();
    if (result == "newer") {
        return "newer, about " + std::to_string(module["expected_time"].asUInt()) + " s";
    }
    if (result == "no-image") {
        return "no image on the stick (" + module["image"].asString() + ")";
    }
    if (result == "refused") {
        return reason + " (refused" + explain(reason) + ")";
    }
    if (module["pending"].asBool()) {
        return "older, or a verdict other than 1: listed by the daemon, but it will not be installed";
    }
    return reason.empty() ? "not newer" : reason;
}

void print(Json::Value found, const UsbOptions& options)
{
    if (options.json) {
        found.removeMember("count");
        std::printf("%s\n", common::compactJson(found).c_str());
        return;
    }
    for (const Json::Value& module : found["modules"]) {
        printLine(module["module"].asString() + ": " + usbVerdictOn(module));
    }
    std::printf("expected time of all together: %d s\n", found["expected_time"].asInt());
}

bool isRefused(const Json::Value& module)
{
    return module["result"] == "refused";
}

int usbStatusOf(const Json::Value& found)
{
    const Json::Value& modules = found["modules"];
    if (std::any_of(modules.begin(), modules.end(), isRefused)) {
        return kFailed;
    }
    return found["count"].asUInt() > 0 ? kDone : kNothingToDo;
}

// ---- The commands ----

[[noreturn]] void throwFailure(const Json::Value& told)
{
    const std::string culprit = told["culprit"].asString();
    throw common::Failure((culprit.empty() ? "" : culprit + ": ") + told["failure"].asString());
}

int check(const UsbOptions& options)
{
    const std::string directory = requireDirectory(options.directory);
    const common::ContentKey key(options.keyFile); // before the user changes: the file is root's
    const Json::Value told = runUpdate([&](UpdateLink& link) {
        Registry registry(link, options.verbose);
        link.telling().put("probe", probe(registry.manager(), key, directory, link));
    });
    if (!told.isMember("probe")) {
        throwFailure(told);
    }
    print(told["probe"], options);
    return usbStatusOf(told["probe"]);
}

void tellErrors(UpdateLink& link)
{
    for (const std::string& message : takeDaemonMessages()) {
        const bool isStop = common::readDaemonMessage(message).kind == Kind::kInstallationFailed;
        if (isStop || common::isComplaint(message)) {
            link.say("fwctl: " + message);
        }
    }
    link.say("fwctl: the installation stopped; modules behind the one that failed were not tried");
}

void installInChild(const UsbOptions& options, const common::ContentKey& key, const std::string& directory,
                    UpdateLink& link)
{
    Registry registry(link, options.verbose);
    FWUpdateSymbolManager& manager = registry.manager();
    const Json::Value found = probe(manager, key, directory, link);
    link.telling().put("probe", found);
    const unsigned int count = found["count"].asUInt();
    if (count == 0) {
        return;
    }
    const auto seconds = static_cast<uint32_t>(found["expected_time"].asInt());
    link.say("fwctl: " + std::to_string(count) + " to install, about " + std::to_string(seconds) +
             " s: leave the stick in");
    link.takeTurn();
    UpdateMonitor monitor(manager.firmwareItems, link);
    registry.follow(&monitor);
    link.keepPower(powerTime(count, seconds));
    const PowerLock lock(powerTime(count, seconds));
    takeDaemonMessages();
    const bool isWhole = manager.doUpdateUSB(key.data(), directory.c_str()) == 0;
    link.tellOutcomes(finishedOutcomes(monitor));
    link.telling().put("stopped", !isWhole);
    if (!isWhole) {
        tellErrors(link);
    }
}

void complainAboutRefused(const Json::Value& found)
{
    for (const Json::Value& module : found["modules"]) {
        if (isRefused(module)) {
            complain(module["module"].asString() + ": " + usbVerdictOn(module));
        }
    }
}

int install(const UsbOptions& options)
{
    const std::string directory = requireDirectory(options.directory);
    const common::ContentKey key(options.keyFile);
    const Before before{examineAll(findControlLibraries(), {}), ""};
    waitForUpdateTurn();
    const Json::Value told =
        runUpdate([&](UpdateLink& link) { installInChild(options, key, directory, link); });
    if (!told.isMember("probe")) {
        throwFailure(told);
    }
    const Json::Value& found = told["probe"];
    if (found["count"].asUInt() == 0 && !told.isMember("failure")) {
        print(found, options);
        return usbStatusOf(found);
    }
    complainAboutRefused(found);
    const bool hasOutcomes = !told["outcomes"].empty() || told.isMember("failure");
    const int status = hasOutcomes ? reportOutcomes(told, before, options.json) : static_cast<int>(kFailed);
    const bool isWhole = !told["stopped"].asBool() && usbStatusOf(found) != kFailed;
    return isWhole ? status : static_cast<int>(kFailed);
}

std::shared_ptr<UsbOptions> addOptions(common::CommandLine& command)
{
    auto options = std::make_shared<UsbOptions>();
    command.text("DIR", options->directory, "Directory of the stick that holds the NAME.bin files")
        .required();
    command
        .text("--key-file", options->keyFile,
              "File with the key: 32 bytes, or 64 hexadecimal digits; only its owner may read it")
        .required();
    command.flag("--json", options->json, "For a program: JSON");
    command.flag("-v,--verbose", options->verbose, "Show the daemon's messages on standard error");
    return options;
}
} // namespace

void defineUsb(common::CommandLine& command)
{
    common::CommandLine& checking =
        command.command("check", "Which modules have a newer encrypted image, and how long installing takes");
    checking.onRun([options = addOptions(checking)] { return check(*options); });
    checking.footer("Example:\n  fwctl usb check /opt/media/USBDriveA --key-file /root/usb.key");
    common::CommandLine& installing =
        command.command("install", "Install the newer ones; stops at the first that fails");
    installing.onRun([options = addOptions(installing)] { return install(*options); });
    installing.footer("Example:\n  fwctl usb install /opt/media/USBDriveA --key-file /root/usb.key");
    command.footer(
        "Needs root or the daemon's user. Exit status: 0 newer or installed, 3 nothing newer, 1 failed,\n"
        "or an image was refused.\n"
        "Examples:\n"
        "  fwctl usb check /opt/media/USBDriveA --key-file /root/usb.key\n"
        "  fwctl usb install /opt/media/USBDriveA --key-file /root/usb.key");
}

} // namespace fwctl
