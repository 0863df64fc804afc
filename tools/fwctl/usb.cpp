// fwctl usb check|install DIR --key-file FILE
#include "command.h"
#include "daemon-log.h"
#include "isolated.h"
#include "key-file.h"
#include "power-lock.h"
#include "registry.h"
#include "update-turn.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <sys/stat.h>

namespace
{
struct Options {
    std::string directory;
    std::string keyFile;
    bool json = false;
    bool verbose = false;
};

// What the probe of the encrypted images has found.
struct Probe {
    Json::Value modules{Json::arrayValue};
    unsigned int count = 0; // pending modules
    int seconds = 0;        // expected of all together
};

// The daemon glues the image's name to the directory as it is.
std::string requireDirectory(std::string directory)
{
    struct stat status = {};
    if (stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        throw common::Failure(directory + " is not a directory: name the one that holds the NAME.bin files");
    return directory.back() == '/' ? directory : directory + "/";
}

// Why a module's image is not taken: the last error after its path or its name stood in a message. Only a
// file without a whole IV is refused namelessly.
std::string reasonFor(const std::string& path, const std::string& firmwareName,
                      const std::vector<std::string>& messages)
{
    constexpr off_t kIvSize = 16;
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && status.st_size < kIvSize)
        return path + " is too short for an encrypted image";
    std::string reason;
    bool isOurs = false;
    for (const std::string& message : messages) {
        if (message.find(".bin") != std::string::npos)
            isOurs = message.find(path) != std::string::npos;
        const bool isNamed = message.rfind("Error: " + firmwareName + " ", 0) == 0;
        if (isNamed || (isOurs && message.rfind("Error", 0) == 0))
            reason = message;
    }
    return reason;
}

bool tells(const std::vector<std::string>& messages, const std::string& text)
{
    return std::any_of(messages.begin(), messages.end(),
                       [&](const std::string& message) { return message.find(text) != std::string::npos; });
}

Json::Value describe(FWUpdateSymbol& module, const std::string& directory,
                     const std::vector<std::string>& messages)
{
    const std::string path = directory + module.getFirmwareName() + ".bin";
    Json::Value told;
    told["module"] = module.getLibName();
    told["image"] = module.isEMP ? Json::Value(path) : Json::Value();
    told["newer"] = tells(messages, "Need Update [" + module.getFirmwareName() + "] [");
    told["pending"] = module.getNeedUpdate();
    told["expected_time"] = module.getExpectedUpdateTime();
    told["reason"] =
        module.isEMP ? reasonFor(path, module.getFirmwareName(), messages) : "takes no encrypted images";
    return told;
}

Probe probe(FWUpdateSymbolManager& manager, const Key& key, const std::string& directory)
{
    Probe found;
    takeDaemonMessages();
    manager.getFirmwareUpdateTime(key.bytes(), directory.c_str(), found.seconds);
    const std::vector<std::string> messages = takeDaemonMessages();
    for (FWUpdateSymbol& module : manager.firmwareItems) {
        found.modules.append(describe(module, directory, messages));
        found.count += module.getNeedUpdate() ? 1 : 0;
    }
    if (tells(messages, "pHandle Error") || tells(messages, "dlsym Error"))
        std::fprintf(stderr, "fwctl: this set has no signature library: every image counts as signed\n");
    return found;
}

std::string verdictOn(const Json::Value& module)
{
    if (module["newer"].asBool())
        return "newer, about " + std::to_string(module["expected_time"].asUInt()) + " s";
    if (module["pending"].asBool())
        return "older, or a verdict other than 1: listed by the daemon, but it will not be installed";
    const std::string reason = module["reason"].asString();
    return reason.empty() ? "not newer" : reason;
}

void print(const Probe& found, const Options& options)
{
    if (options.json) {
        Json::Value told;
        told["modules"] = found.modules;
        told["expected_time"] = found.seconds;
        std::printf("%s\n", toJson(told).c_str());
        return;
    }
    for (const Json::Value& module : found.modules)
        std::printf("%s: %s\n", module["module"].asCString(), verdictOn(module).c_str());
    std::printf("expected time of all together: %d s\n", found.seconds);
}

int check(const Options& options)
{
    const std::string directory = requireDirectory(options.directory);
    const Key key(options.keyFile); // before the user changes: the file is root's
    const Probe found = probe(openRegistry(options.verbose), key, directory);
    print(found, options);
    return found.count > 0 ? kDone : kNothingToDo;
}

int install(const Options& options)
{
    const std::string directory = requireDirectory(options.directory);
    const Key key(options.keyFile);
    waitForUpdateTurn(); // while this may be root yet, who alone sees which process has it
    FWUpdateSymbolManager& manager = openRegistry(options.verbose);
    const Probe found = probe(manager, key, directory);
    if (found.count == 0) {
        print(found, options);
        return kNothingToDo;
    }
    std::fprintf(stderr, "fwctl: %u to install, about %d s: leave the stick in\n", found.count,
                 found.seconds);
    waitForUpdateTurn();
    const InterruptGuard guard;
    const UpdateTurn turn; // this path of the daemon's takes none itself
    const PowerLock lock(found.count, static_cast<uint32_t>(found.seconds));
    UpdateMonitor monitor(manager.firmwareItems);
    takeDaemonMessages();
    const int result = manager.doUpdateUSB(key.bytes(), directory.c_str());
    const std::vector<UpdateOutcome> outcomes = monitor.finish();
    const int status = outcomes.empty() ? kFailed : reportOutcomes(outcomes, options.json);
    if (result == 0)
        return status;
    for (const std::string& message : takeDaemonMessages()) {
        if (message.rfind("Error", 0) == 0 || message.rfind("update fail", 0) == 0)
            std::fprintf(stderr, "fwctl: %s\n", message.c_str());
    }
    std::fprintf(stderr,
                 "fwctl: the installation stopped; modules behind the one that failed were not tried\n");
    return kFailed;
}

std::shared_ptr<Options> addOptions(common::CommandLine& command)
{
    auto options = std::make_shared<Options>();
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
        "Needs root or the daemon's user. Exit status: 0 newer or installed, 3 nothing newer, 1 failed.\n"
        "Examples:\n"
        "  fwctl usb check /opt/media/USBDriveA --key-file /root/usb.key\n"
        "  fwctl usb install /opt/media/USBDriveA --key-file /root/usb.key");
}
