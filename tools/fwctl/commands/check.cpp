// fwctl check [--json] [--verbose]
#include <cstdio>
#include <memory>
#include <vector>

#include "common/json-text.h"
#include "src/src/fw-update-symbol.h"
#include "tools/fwctl/commands/command.h"
#include "tools/fwctl/modules/daemon-log.h"
#include "tools/fwctl/modules/examination.h"
#include "tools/fwctl/modules/isolated.h"
#include "tools/fwctl/modules/library-calls.h"
#include "tools/fwctl/modules/replay.h"
#include "tools/fwctl/obstacles.h"
#include "tools/fwctl/output.h"
#include "tools/fwctl/privileges.h"

namespace fwctl
{

namespace
{
struct CheckOptions {
    bool json = false;
    bool verbose = false;
};

std::string reasonOf(FWUpdateSymbol& module, const ImageSource& source, int verdict)
{
    const std::string error = verdict > 1 ? textOfOddVerdict(verdict) : takeLastComplaint();
    const bool isNameless = source.type == UPDATE_TYPE_EMP && !module.isEMP;
    return isNameless ? "the identifier \"" + module.EMPName + "\" is refused" : error;
}

Json::Value checkSource(FWUpdateSymbol& module, const ImageSource& source)
{
    takeDaemonMessages();
    const std::string special = findSpecialFile(module, source);
    takeDaemonMessages();
    char emptyContext[] = "";
    const int verdict = special.empty() ? module.isNeedUpdate(source.caller, emptyContext) : -1;
    Json::Value result;
    result["verdict"] = verdict;
    result["newer"] = verdict == 1;
    result["offered"] = verdict >= 0 ? Json::Value(module.information.version) : Json::Value();
    result["reason"] = verdict == 1 ? "" : special.empty() ? reasonOf(module, source, verdict) : special;
    return result;
}

void checkInChild(const ControlLibrary& library, Telling& telling)
{
    auto& module =
        *new FWUpdateSymbol(library.name, library.usr); // a library is not asked to tear itself down
    takeDaemonMessages();
    if (telling.call("loading", library.name, [&] { return module.loadSymbol(library.name); }) != 0) {
        telling.put("unusable", takeLastComplaint());
    }
    watchCalls(module, telling);
    for (const ImageSource& source : kImageSources) {
        if (source.checkedByDaemon && module.symbolType == 0) {
            telling.put(source.name, checkSource(module, source));
        }
    }
    telling.put("pending", module.getNeedUpdate());
    telling.put("ui_use", module.information.ui_use);
}

Json::Value checkModule(const ControlLibrary& library)
{
    Json::Value told = runIsolated([&](Telling& telling) { checkInChild(library, telling); });
    told["module"] = library.name;
    told["pending"] = told.get("pending", false);
    return told;
}

std::string checkVerdictOn(const Json::Value& module)
{
    if (module.isMember("failure")) {
        return module["failure"].asString();
    }
    if (module["pending"].asBool()) {
        return "pending";
    }
    return module.isMember("unusable") ? "cannot be used: " + module["unusable"].asString() : "not pending";
}

void printCheck(const Json::Value& module)
{
    printLine(module["module"].asString() + ": " + checkVerdictOn(module));
    for (const ImageSource& source : kImageSources) {
        if (!module.isMember(source.name)) {
            continue;
        }
        const Json::Value& result = module[source.name];
        const std::string text = result["newer"].asBool() ? result["offered"].asString() + " is newer"
                                                          : result["reason"].asString();
        printLine("  " + std::string(source.title) + ": " + text);
    }
    for (const Json::Value& obstacle : module["obstacles"]) {
        printLine("  but: " + obstacle.asString());
    }
}

ExitStatus checkStatusOf(const std::vector<Json::Value>& modules)
{
    ExitStatus status = kNothingToDo;
    for (const Json::Value& module : modules) {
        if (module.isMember("failure")) {
            return kFailed;
        }
        status = module["pending"].asBool() ? kDone : status;
    }
    return status;
}

int check(const CheckOptions& options)
{
    becomeDaemonUser();
    if (options.verbose) {
        forwardDaemonLog([](const std::string& message) {
            std::fprintf(stderr, "  | %s\n", common::visible(message).c_str());
        });
    } else {
        forwardDaemonLog();
    }
    std::vector<Json::Value> modules;
    for (const ControlLibrary& library : findControlLibraries()) {
        modules.push_back(checkModule(library));
    }
    complainAboutLeftBehind(modules);
    addObstacles(modules);
    Json::Value all(Json::arrayValue);
    for (const Json::Value& module : modules) {
        all.append(module);
        if (!options.json) {
            printCheck(module);
        }
    }
    if (options.json) {
        std::printf("%s\n", common::compactJson(all).c_str());
    } else if (modules.empty()) {
        complain("this set has no module: \"fwctl doctor\" looks for the reason");
    }
    return checkStatusOf(modules);
}
} // namespace

void defineCheck(common::CommandLine& command)
{
    auto options = std::make_shared<CheckOptions>();
    command.flag("--json", options->json, "For a program: one JSON array");
    command.flag("-v,--verbose", options->verbose, "Show the daemon's messages on standard error");
    command.footer(
        "Runs the daemon's own check. It acts: packages are mounted, and stay mounted, as the daemon\n"
        "leaves them. \"fwctl list\" and \"fwctl why\" answer the same without touching anything.\n"
        "Needs root or the daemon's user. Exit status: 0 something is pending, 3 nothing is, 1 failure.\n"
        "Example:\n  fwctl check --verbose");
    command.onRun([options] { return check(*options); });
}

} // namespace fwctl
