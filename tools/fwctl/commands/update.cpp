// fwctl update MODULE | --all
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <memory>

#include "common/daemon/daemon-events.h"
#include "common/json-text.h"
#include "tools/fwctl/commands/command.h"
#include "tools/fwctl/modules/daemon-log.h"
#include "tools/fwctl/modules/examination.h"
#include "tools/fwctl/modules/isolated.h"
#include "tools/fwctl/modules/registry.h"
#include "tools/fwctl/modules/replay.h"
#include "tools/fwctl/output.h"
#include "tools/fwctl/turn/power-lock.h"
#include "tools/fwctl/turn/update-child.h"
#include "tools/fwctl/turn/update-turn.h"

namespace fwctl
{

namespace
{
struct UpdateOptions {
    std::string module;
    bool all = false;
    std::string source;
    bool json = false;
    bool verbose = false;
};

constexpr const char* kWaiting = "waiting"; // modules, for the upgrade screen

struct Choice {
    const ImageSource* source;
    uint32_t seconds;                 // expected
    std::vector<Json::Value> modules; // those of that name, as they are before
};

// The source that the daemon would take; the package when it would take none, so that its check tells why.
Choice chooseSource(const UpdateOptions& options)
{
    constexpr uint32_t kUnknownSeconds = 300; // what the daemon takes as well
    Choice choice{findImageSource("package"), kUnknownSeconds, {}};
    for (const ControlLibrary& library : requireControlLibraries(options.module)) {
        const Json::Value module = examine(library, {}); // it speaks again when it is updated
        if (module["pending"].asBool()) {
            choice.source = findImageSource(module["pending_source"].asString());
            choice.seconds = module["expected_time"].asUInt();
        }
        choice.modules.push_back(module);
    }
    if (!options.source.empty()) {
        choice.source = findImageSource(options.source);
    }
    return choice;
}

// ---- In the child ----

// The daemon runs an external module's update without taking a turn; a technician's must not meet another.
void updateExternal(Registry& registry, FWUpdateSymbol& module, UpdateMonitor& monitor, UpdateLink& link)
{
    monitor.follow(module);
    char emptyContext[] = "";
    const int result = registry.manager().doUpdateFirmware(module.getLibName(), FW_CALLER_EMP, emptyContext);
    Json::Value outcomes = finishedOutcomes(monitor);
    for (Json::Value& outcome : outcomes) {
        outcome["result"] = result == 0 ? "updated" : "failed";
    }
    link.tellOutcomes(outcomes);
}

// What the daemon's code would refuse in words that do not tell: "file no exist ()".
void requireReadable(FWUpdateSymbol& module, const ImageSource& source)
{
    if (!module.isEMP) {
        throw common::Failure("the identifier \"" + module.EMPName + "\" of " + module.getLibName() +
                              " is refused: \"fwctl doctor\" says more");
    }
    if (module.getBinaryPath(source.type).empty()) {
        throw common::Failure(
            "no USB stick is mounted as /opt/media/USBDriveA or USBDriveA1 to 11: put it in");
    }
    const std::string special = findSpecialFile(module, source);
    if (!special.empty()) {
        throw common::Failure(module.getLibName() + ": " + special);
    }
}

void updateInChild(const UpdateOptions& options, const Choice& choice, UpdateLink& link)
{
    Registry registry(link, options.verbose);
    FWUpdateSymbol& module = registry.find(options.module);
    if (module.handle == nullptr || !module.functions.doUpdate) {
        throw common::Failure("the control library of " + options.module +
                              " cannot be used: \"fwctl doctor\" says why");
    }
    if (module.getSymbolType() == 0) {
        requireReadable(module, *choice.source);
    }
    link.takeTurn();
    link.keepPower(powerTime(1, choice.seconds));
    UpdateMonitor monitor(registry.manager().firmwareItems, link);
    registry.follow(&monitor);
    if (module.getSymbolType() == 1) {
        updateExternal(registry, module, monitor, link);
        return;
    }
    takeDaemonMessages();
    char emptyContext[] = "";
    const PowerLock lock(powerTime(1, choice.seconds));
    const int verdict =
        registry.manager().doUpdateFirmware(options.module, choice.source->caller, emptyContext);
    const Json::Value outcomes = finishedOutcomes(monitor);
    if (outcomes.empty()) {
        link.telling().put("unstarted", verdict > 1 ? textOfOddVerdict(verdict) : takeLastComplaint());
    } else {
        link.tellOutcomes(outcomes);
    }
}

// As the daemon finds out what is pending. False when it would not come to an end: the module is left out
// then.
bool checkModule(FWUpdateSymbol& module, UpdateLink& link)
{
    char emptyContext[] = "";
    for (const ImageSource& source : kImageSources) {
        const std::string special =
            source.checkedByDaemon && module.getSymbolType() == 0 ? findSpecialFile(module, source) : "";
        if (!special.empty()) {
            link.say("fwctl: " + module.getLibName() + " is left out: " + special);
            module.needUpdate = false;
            return false;
        }
    }
    for (const ImageSource& source : kImageSources) {
        if (source.checkedByDaemon) {
            module.isNeedUpdate(source.caller, emptyContext);
        }
    }
    return true;
}

// The daemon's run would try it all the same, and fail with the package that is not there.
bool waitsForScreen(FWUpdateSymbol& module)
{
    return module.getNeedUpdate() && module.getUpdateType() == UPDATE_TYPE_BUILTIN && !module.getIMGExists();
}

// Without the daemon's list file, which is the daemon's own.
void checkAll(FWUpdateSymbolManager& manager, UpdateLink& link)
{
    bool isComplete = true;
    Json::Value waiting(Json::arrayValue);
    for (FWUpdateSymbol& module : manager.firmwareItems) {
        isComplete = checkModule(module, link) && isComplete;
        if (waitsForScreen(module)) {
            module.needUpdate = false;
            waiting.append(module.getLibName());
        }
    }
    link.telling().put("left_out", !isComplete);
    link.telling().put(kWaiting, waiting);
}

// As the daemon's run expects it.
uint32_t powerTimeOf(FWUpdateSymbolManager& manager)
{
    unsigned int count = 0;
    uint32_t seconds = 0;
    for (FWUpdateSymbol& module : manager.firmwareItems) {
        if (module.getNeedUpdate()) {
            ++count;
            seconds += static_cast<uint32_t>(module.getExpectedUpdateTime());
        }
    }
    return powerTime(count, seconds);
}

void updateAllInChild(const UpdateOptions& options, UpdateLink& link)
{
    Registry registry(link, options.verbose);
    link.takeTurn();
    checkAll(registry.manager(), link);
    link.keepPower(powerTimeOf(registry.manager())); // the run itself locks it for as long as it lasts
    UpdateMonitor monitor(registry.manager().firmwareItems, link);
    registry.follow(&monitor);
    registry.manager().doUpdateFirmwareAll(FW_CALLER_EMP);
    link.tellOutcomes(finishedOutcomes(monitor));
}

// ---- In the parent ----

// A check that did not lead to an update, by the daemon's last words on it.
struct Unstarted {
    common::DaemonEventKind kind;
    const char* result;
    const char* text;
    ExitStatus status;
};
constexpr Unstarted kUnstarted[] = {
    {common::DaemonEventKind::kNotNewer, "not-needed", "no update needed", kNothingToDo},
    {common::DaemonEventKind::kNoPackage, "no-image", "there is no package", kNothingToDo},
    {common::DaemonEventKind::kNoImage, "no-image", "there is no image", kNothingToDo},
};
constexpr Unstarted kOtherwise = {common::DaemonEventKind::kDetail, "failed", "cannot be updated", kFailed};

const Unstarted& unstartedBecauseOf(const std::string& reason)
{
    const common::DaemonEventKind kind = common::readDaemonMessage(reason).kind;
    const auto* const found = std::find_if(std::begin(kUnstarted), std::end(kUnstarted),
                                           [&](const Unstarted& known) { return known.kind == kind; });
    return found == std::end(kUnstarted) ? kOtherwise : *found;
}

int reportUnstarted(const UpdateOptions& options, const std::string& reason)
{
    const Unstarted& kind = unstartedBecauseOf(reason);
    if (options.json) {
        Json::Value all(Json::arrayValue);
        Json::Value& told = all.append(Json::objectValue);
        told["module"] = options.module;
        told["result"] = kind.result;
        told["reason"] = reason;
        std::printf("%s\n", common::compactJson(all).c_str());
        return kind.status;
    }
    printLine(options.module + ": " + kind.text + ": " + reason);
    if (kind.status == kFailed) {
        complain("\"fwctl why " + options.module + "\" says what to do");
    }
    return kind.status;
}

int updateOne(const UpdateOptions& options)
{
    const Choice choice = chooseSource(options);
    waitForUpdateTurn();
    const Json::Value told = runUpdate([&](UpdateLink& link) { updateInChild(options, choice, link); });
    return told.isMember("unstarted")
               ? reportUnstarted(options, told["unstarted"].asString())
               : reportOutcomes(told, {choice.modules, choice.source->name}, options.json);
}

// Behind those that were tried.
void addWaiting(Json::Value& told)
{
    if (told.isMember("failure")) {
        return;
    }
    for (const Json::Value& module : told[kWaiting]) {
        Json::Value outcome;
        outcome["module"] = module;
        outcome["result"] = "no-image";
        outcome["reason"] = "has no package; its image in the system image is offered on the screen";
        outcome["late"] = false;
        told["outcomes"].append(outcome);
    }
}

int updateAll(const UpdateOptions& options)
{
    const Before before{examineAll(findControlLibraries(), {}), "package"};
    waitForUpdateTurn();
    Json::Value told = runUpdate([&](UpdateLink& link) { updateAllInChild(options, link); });
    const bool isLeftOut = told["left_out"].asBool();
    addWaiting(told);
    if (!told.isMember("failure") && told["outcomes"].empty()) {
        std::printf("%s\n", options.json ? "[]" : "nothing is pending");
        return isLeftOut ? kFailed : kNothingToDo;
    }
    const int status = reportOutcomes(told, before, options.json);
    return isLeftOut ? static_cast<int>(kFailed) : status;
}

int update(const UpdateOptions& options)
{
    if (options.all == !options.module.empty()) {
        throw common::WrongUse("name one MODULE, or give --all (\"fwctl list\" shows the names)");
    }
    return options.all ? updateAll(options) : updateOne(options);
}
} // namespace

void defineUpdate(common::CommandLine& command)
{
    auto options = std::make_shared<UpdateOptions>();
    command.text("MODULE", options->module, "Name of the module, as \"fwctl list\" shows it");
    common::Option all =
        command.flag("--all", options->all, "Every pending module, as the daemon does at standby");
    command.text("--source", options->source, "Where the image comes from (default: what is pending)")
        .oneOf({"package", "system", "usb", "sandbox"})
        .excludes(all);
    command.flag("--json", options->json, "For a program: one JSON array");
    command.flag("-v,--verbose", options->verbose, "Show the daemon's messages on standard error");
    command.footer(
        "Waits while another program updates, and says which. "
        "Ctrl-C ends the waiting (status 130), but not an\n"
        "update that has begun. --all takes packages only, like the daemon's own run. "
        "Needs root or the daemon's\n"
        "user. Exit status: 0 updated, 3 nothing newer, 1 failed, 4 no such module, 6 updated late.\n"
        "Examples:\n"
        "  fwctl update tuner\n"
        "  fwctl update panel --source system\n"
        "  fwctl update --all");
    command.onRun([options] { return update(*options); });
}

} // namespace fwctl
