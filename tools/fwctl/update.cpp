// fwctl update MODULE | --all
#include "command.h"
#include "daemon-log.h"
#include "examination.h"
#include "isolated.h"
#include "power-lock.h"
#include "registry.h"
#include "update-turn.h"

#include <cstdio>
#include <memory>

namespace
{
struct Options {
    std::string module;
    bool all = false;
    std::string source;
    bool json = false;
    bool verbose = false;
};

struct Choice {
    const ImageSource* source;
    uint32_t seconds; // expected
};

// The source that the daemon would take; the package when it would take none, so that its check tells why.
Choice chooseSource(const Options& options)
{
    constexpr uint32_t kUnknownSeconds = 300; // what the daemon takes as well
    Choice choice{findImageSource("package"), kUnknownSeconds};
    for (const ControlLibrary& library : requireControlLibraries(options.module)) {
        const Json::Value module = examine(library);
        if (module["pending"].asBool())
            choice = {findImageSource(module["pending_source"].asString()), module["expected_time"].asUInt()};
    }
    if (!options.source.empty())
        choice.source = findImageSource(options.source);
    return choice;
}

// The daemon runs an external module's update without taking a turn; a technician's must not meet another.
int updateExternal(FWUpdateSymbolManager& manager, FWUpdateSymbol& module, const Options& options)
{
    const InterruptGuard guard;
    const UpdateTurn turn;
    UpdateMonitor monitor(manager.firmwareItems);
    monitor.follow(module);
    char emptyContext[] = "";
    const int result = manager.doUpdateFirmware(options.module, FW_CALLER_EMP, emptyContext);
    std::vector<UpdateOutcome> outcomes = monitor.finish();
    for (UpdateOutcome& outcome : outcomes)
        outcome.result = result == 0 ? "updated" : "failed";
    return reportOutcomes(outcomes, options.json);
}

// A check that did not lead to an update, by the daemon's last words on it.
struct Unstarted {
    const char* words;
    const char* result;
    const char* text;
    ExitStatus status;
};
constexpr Unstarted kUnstarted[] = {
    {" not need update, version is ", "not-needed", "no update needed", kNothingToDo},
    {"Error: file no exist (", "no-image", "there is no package", kNothingToDo},
    {"Error: Firmware binary file no exist (", "no-image", "there is no image", kNothingToDo},
    {"", "failed", "cannot be updated", kFailed},
};

int reportUnstarted(const Options& options)
{
    std::string reason;
    for (const std::string& message : takeDaemonMessages()) {
        if (message.rfind("Error", 0) == 0)
            reason = message;
    }
    const Unstarted* kind = kUnstarted;
    while (reason.find(kind->words) == std::string::npos)
        ++kind; // the last one fits everything
    if (options.json) {
        Json::Value all(Json::arrayValue);
        Json::Value& told = all.append(Json::objectValue);
        told["module"] = options.module;
        told["result"] = kind->result;
        told["reason"] = reason;
        std::printf("%s\n", toJson(all).c_str());
        return kind->status;
    }
    std::printf("%s: %s: %s\n", options.module.c_str(), kind->text, reason.c_str());
    if (kind->status == kFailed)
        std::fprintf(stderr, "fwctl: \"fwctl why %s\" says what to do\n", options.module.c_str());
    return kind->status;
}

FWUpdateSymbol* findModule(FWUpdateSymbolManager& manager, const std::string& name)
{
    for (FWUpdateSymbol& module : manager.firmwareItems) {
        if (module.getLibName() == name)
            return &module;
    }
    throw NoSuchModule(name);
}

int updateOne(const Options& options)
{
    const Choice choice = chooseSource(options);
    waitForUpdateTurn(); // while this may be root yet, who alone sees which process has it
    FWUpdateSymbolManager& manager = openRegistry(options.verbose);
    FWUpdateSymbol& module = *findModule(manager, options.module);
    if (module.handle == nullptr || !module.functions.doUpdate)
        throw common::Failure("the control library of " + options.module +
                              " cannot be used: \"fwctl doctor\" says why");
    waitForUpdateTurn();
    if (module.getSymbolType() == 1)
        return updateExternal(manager, module, options);
    const InterruptGuard guard;
    takeDaemonMessages();
    char emptyContext[] = "";
    UpdateMonitor monitor(manager.firmwareItems);
    const PowerLock lock(1, choice.seconds);
    manager.doUpdateFirmware(options.module, choice.source->caller, emptyContext);
    const std::vector<UpdateOutcome> outcomes = monitor.finish();
    return outcomes.empty() ? reportUnstarted(options) : reportOutcomes(outcomes, options.json);
}

// As the daemon finds out what is pending, but without its list file, which is the daemon's own.
void checkAll(FWUpdateSymbolManager& manager)
{
    char emptyContext[] = "";
    for (FWUpdateSymbol& module : manager.firmwareItems) {
        for (const ImageSource& source : kImageSources) {
            if (source.checkedByDaemon)
                module.isNeedUpdate(source.caller, emptyContext);
        }
    }
}

int updateAll(const Options& options)
{
    waitForUpdateTurn(); // while this may be root yet, who alone sees which process has it
    FWUpdateSymbolManager& manager = openRegistry(options.verbose);
    waitForUpdateTurn();
    checkAll(manager);
    const InterruptGuard guard;
    UpdateMonitor monitor(manager.firmwareItems);
    manager.doUpdateFirmwareAll(FW_CALLER_EMP);
    const std::vector<UpdateOutcome> outcomes = monitor.finish();
    if (!outcomes.empty())
        return reportOutcomes(outcomes, options.json);
    std::printf("%s\n", options.json ? "[]" : "nothing is pending");
    return kNothingToDo;
}

int update(const Options& options)
{
    if (options.all == !options.module.empty())
        throw common::WrongUse("name one MODULE, or give --all (\"fwctl list\" shows the names)");
    return options.all ? updateAll(options) : updateOne(options);
}
} // namespace

void defineUpdate(common::CommandLine& command)
{
    auto options = std::make_shared<Options>();
    command.text("MODULE", options->module, "Name of the module, as \"fwctl list\" shows it");
    common::Option all =
        command.flag("--all", options->all, "Every pending module, as the daemon does at standby");
    command.text("--source", options->source, "Where the image comes from (default: what is pending)")
        .oneOf({"package", "system", "usb", "sandbox"})
        .excludes(all);
    command.flag("--json", options->json, "For a program: one JSON array");
    command.flag("-v,--verbose", options->verbose, "Show the daemon's messages on standard error");
    command.footer(
        "Waits while another program updates, and says which. Ctrl-C ends the waiting, but not an update\n"
        "that has begun. --all takes packages only, like the daemon's own run. Needs root or the daemon's\n"
        "user. Exit status: 0 updated, 3 nothing newer, 1 failed, 4 no such module, 6 updated late.\n"
        "Examples:\n"
        "  fwctl update tuner\n"
        "  fwctl update panel --source system\n"
        "  fwctl update --all");
    command.onRun([options] { return update(*options); });
}
