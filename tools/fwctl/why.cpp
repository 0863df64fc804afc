// fwctl why MODULE [--json]
#include "command.h"
#include "examination.h"
#include "isolated.h"
#include "set-state.h"

#include "pralis.h"
#include "pwrctl.h"

#include <cstdio>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <vector>

namespace
{
constexpr long kGraceSeconds = 600; // after the daemon's start, in which a standby ends it instead

bool exists(const char* path)
{
    struct stat status = {};
    return lstat(path, &status) == 0;
}

bool isLink(const char* path)
{
    struct stat status = {};
    return lstat(path, &status) == 0 && S_ISLNK(status.st_mode);
}

// ---- What the set makes of a pending module ----

// What keeps the daemon from acting now, each with what to do.
std::vector<std::string> findObstacles(const Json::Value& module)
{
    std::vector<std::string> found;
    const DaemonState daemon = findDaemon();
    const bool onScreen = module["ui_use"] != "none";
    if (!daemon.hasBus)
        found.push_back("the system bus does not answer: whether the daemon runs is unknown");
    else if (daemon.pid == 0)
        found.push_back(
            "the daemon does not run: it checks again at the next boot (or use \"fwctl update\")");
    else if (!onScreen && daemon.seconds < kGraceSeconds)
        found.push_back("the daemon started " + std::to_string(daemon.seconds) +
                        " s ago: a standby within its first ten minutes only ends it; wait " +
                        std::to_string(kGraceSeconds - daemon.seconds) + " s");
    int mirroring = 0;
    if (pralis_get_int(kMirroringKey, &mirroring) == 0 && mirroring == 1)
        found.push_back("the screen is mirrored: changes of power are ignored; end the mirroring");
    if (exists(kFactoryMarker))
        found.push_back(
            std::string("factory mode: changes of power are ignored and no screen is shown; remove ") +
            kFactoryMarker + " and restart the set");
    if (isLink(kUpdateListPath))
        found.push_back(std::string(kUpdateListPath) +
                        " is a symbolic link: the daemon refuses to check; see \"fwctl doctor\"");
    const SemaphoreState semaphore = peekUpdateSemaphore();
    const bool isTaken = semaphore.isReadable && semaphore.value == 0;
    if (isTaken && findSemaphoreUsers().isNobody())
        found.push_back("the update semaphore is stuck: no update can begin; see \"fwctl doctor --fix\"");
    return found;
}

std::string outcomeOfPending(const Json::Value& module)
{
    const bool fromSystem = module["pending_source"] == "system";
    const std::string uiUse = module["ui_use"].asString();
    if (uiUse == "none" && fromSystem)
        return "never: the unattended run takes packages only, and this image is in the system image";
    if (uiUse == "none")
        return "unattended, when the set goes from normal to standby ten minutes or more after the daemon's "
               "start";
    const std::string offer = uiUse == "force" ? "through the upgrade screen, which forces it"
                                               : "through the upgrade screen, when the user accepts";
    return fromSystem ? offer + "; a standby run cannot write it, as it takes packages only"
                      : offer + "; otherwise unattended, if the daemon still runs at a standby";
}

std::string outcomeOf(const Json::Value& module)
{
    if (module.isMember("failure"))
        return "never: " + module["failure"].asString() + "; the daemon would fail as well";
    if (module["kind"] == "external")
        return "never by the daemon: an external module's library finds its image itself "
               "(\"fwctl update\" has it do so)";
    if (module["pending"].asBool() && module["kind"] == "unusable")
        return "never: a newer image is found, but the identifier is refused when it is to be written";
    if (module["kind"] == "unusable")
        return "never: the control library cannot be used (\"fwctl doctor\" says why)";
    if (!module["pending"].asBool())
        return "not pending: no source passed every test";
    return outcomeOfPending(module);
}

// ---- Printing ----

void printStep(const Json::Value& step)
{
    const bool passed = step["passed"].asBool();
    std::printf("  %s %s: %s\n", passed ? "✓" : "✗", step["test"].asCString(), step["detail"].asCString());
    if (!passed)
        std::printf("      -> %s\n", step["advice"].asCString());
}

void printSource(const Json::Value& source)
{
    const ImageSource* known = findImageSource(source["source"].asString());
    std::printf("%s%s\n", known->title,
                known->checkedByDaemon ? "" : " (not looked at by the daemon on its own)");
    for (const Json::Value& step : source["steps"])
        printStep(step);
}

void print(const Json::Value& module)
{
    std::printf("%s (%s%s.so), %s\n", module["module"].asCString(), module["directory"].asCString(),
                module["module"].asCString(), module["kind"].asCString());
    std::printf("installed: %s\n",
                module["installed"].isNull() ? "the library cannot tell" : module["installed"].asCString());
    if (module["kind"] == "unusable") {
        for (const Json::Value& message : module["load_messages"])
            std::printf("  %s\n", message.asCString());
    }
    for (const Json::Value& source : module["sources"])
        printSource(source);
    std::printf("what will happen: %s\n", module["outcome"].asCString());
    for (const Json::Value& obstacle : module["obstacles"])
        std::printf("  but: %s\n", obstacle.asCString());
}

// ---- The command ----

ExitStatus statusOf(const Json::Value& module)
{
    if (module.isMember("failure"))
        return kFailed;
    return module["pending"].asBool() ? kDone : kNothingToDo;
}

int why(const std::string& name, bool json)
{
    Json::Value modules(Json::arrayValue); // all are examined before the bus is asked: see set-state.h
    for (const ControlLibrary& library : requireControlLibraries(name))
        modules.append(examine(library));
    ExitStatus status = kNothingToDo;
    for (Json::Value& module : modules) {
        module["outcome"] = outcomeOf(module);
        module["obstacles"] = Json::arrayValue;
        if (module["pending"].asBool()) {
            for (const std::string& obstacle : findObstacles(module))
                module["obstacles"].append(obstacle);
        }
        status = status == kDone ? kDone : statusOf(module);
        if (!json)
            print(module);
    }
    if (json)
        std::printf("%s\n", toJson(modules).c_str());
    return status;
}

struct Options {
    std::string module;
    bool json = false;
};
} // namespace

void defineWhy(common::CommandLine& command)
{
    auto options = std::make_shared<Options>();
    command.text("MODULE", options->module, "Name of the module, as \"fwctl list\" shows it").required();
    command.flag("--json", options->json, "For a program: one JSON array");
    command.footer(
        "Goes through the daemon's tests for each image source, and says which one stopped the update.\n"
        "Changes nothing on the set: nothing is mounted, written or logged.\n"
        "Exit status: 0 pending, 3 not pending, 1 the control library crashed or hung.\n"
        "Example:\n  fwctl why tuner");
    command.onRun([options] { return why(options->module, options->json); });
}
