// fwctl check [--json] [--verbose]
#include "command.h"
#include "daemon-log.h"
#include "examination.h"
#include "isolated.h"
#include "privileges.h"

#include "fw-update-symbol.h"

#include <cstdio>
#include <memory>
#include <unistd.h>
#include <vector>

namespace
{
struct Options {
    bool json = false;
    bool verbose = false;
};

std::string lastError(const std::vector<std::string>& messages)
{
    for (auto message = messages.rbegin(); message != messages.rend(); ++message) {
        if (message->rfind("Error", 0) == 0)
            return *message;
    }
    return "";
}

void checkSource(FWUpdateSymbol& module, const ImageSource& source, Telling& telling)
{
    takeDaemonMessages();
    char emptyContext[] = "";
    const int verdict =
        telling.call("the check", [&] { return module.isNeedUpdate(source.caller, emptyContext); });
    Json::Value result;
    result["verdict"] = verdict;
    result["newer"] = verdict == 1;
    result["offered"] = verdict >= 0 ? Json::Value(module.information.version) : Json::Value();
    result["reason"] = verdict == 1 ? "" : lastError(takeDaemonMessages());
    telling.put(source.name, result);
}

// A check mounts and reads a whole image, so it is given more time than a single call.
Json::Value checkModule(const ControlLibrary& library)
{
    constexpr std::chrono::minutes kLimit{5};
    Json::Value told = runIsolated(
        [&](Telling& telling) {
            FWUpdateSymbol module(library.name, library.usr);
            if (telling.call("loading", [&] { return module.loadSymbol(library.name); }) != 0)
                telling.put("unusable", lastError(takeDaemonMessages()));
            for (const ImageSource& source : kImageSources) {
                if (source.checkedByDaemon && module.symbolType == 0)
                    checkSource(module, source, telling);
            }
            telling.put("pending", module.getNeedUpdate());
            _exit(0);
        },
        kLimit);
    told["module"] = library.name;
    told["pending"] = told.get("pending", false);
    return told;
}

void print(const Json::Value& module)
{
    const char* const verdict = module.isMember("failure")   ? module["failure"].asCString()
                                : module["pending"].asBool() ? "pending"
                                                             : "not pending";
    std::printf("%s: %s\n", module["module"].asCString(), verdict);
    for (const ImageSource& source : kImageSources) {
        if (!module.isMember(source.name))
            continue;
        const Json::Value& result = module[source.name];
        const std::string text = result["newer"].asBool() ? result["offered"].asString() + " is newer"
                                                          : result["reason"].asString();
        std::printf("  %s: %s\n", source.title, text.c_str());
    }
}

int check(const Options& options)
{
    becomeDaemonUser();
    forwardDaemonLog(options.verbose);
    Json::Value modules(Json::arrayValue);
    ExitStatus status = kNothingToDo;
    for (const ControlLibrary& library : findControlLibraries()) {
        const Json::Value module = checkModule(library);
        if (module.isMember("failure"))
            status = kFailed;
        else if (module["pending"].asBool() && status != kFailed)
            status = kDone;
        modules.append(module);
        if (!options.json)
            print(module);
    }
    if (options.json)
        std::printf("%s\n", toJson(modules).c_str());
    return status;
}
} // namespace

void defineCheck(common::CommandLine& command)
{
    auto options = std::make_shared<Options>();
    command.flag("--json", options->json, "For a program: one JSON array");
    command.flag("-v,--verbose", options->verbose, "Show the daemon's messages on standard error");
    command.footer(
        "Runs the daemon's own check. It acts: packages are mounted, and stay mounted, as the daemon\n"
        "leaves them. \"fwctl list\" and \"fwctl why\" answer the same without touching anything.\n"
        "Needs root or the daemon's user. Exit status: 0 something is pending, 3 nothing is, 1 failure.\n"
        "Example:\n  fwctl check --verbose");
    command.onRun([options] { return check(*options); });
}
