#include "registry.h"

#include "command.h"
#include "daemon-log.h"
#include "examination.h"
#include "isolated.h"
#include "privileges.h"

#include <cstdio>
#include <unistd.h>

namespace
{
void requireLoadable(const ControlLibrary& library)
{
    const Json::Value told = runIsolated([&](Telling& telling) {
        FWUpdateSymbol module(library.name, library.usr);
        telling.call("loading", [&] { return module.loadSymbol(library.name); });
        _exit(0);
    });
    if (told.isMember("failure"))
        throw common::Failure(library.directory + library.name + ".so: " + told["failure"].asString() +
                              "; move it away: the daemon cannot start with it either");
}

std::string installedVersion(FWUpdateSymbol& module)
{
    FWUpdateSymbol::TextBuffer version = {};
    return module.getActiveVersion(version) == 0 ? version : "unknown";
}

Json::Value asJson(const UpdateOutcome& outcome)
{
    Json::Value told;
    told["module"] = outcome.module->getLibName();
    told["result"] = outcome.result;
    told["reason"] = outcome.reason;
    told["late"] = outcome.isLate;
    told["installed"] = installedVersion(*outcome.module);
    return told;
}

void print(const Json::Value& outcome)
{
    const std::string name = outcome["module"].asString();
    const std::string late = outcome["late"].asBool() ? ", after more than the expected time" : "";
    if (outcome["result"] == "updated")
        std::printf("%s: updated, %s is installed%s\n", name.c_str(), outcome["installed"].asCString(),
                    late.c_str());
    else if (outcome["result"] == "not-needed")
        std::printf("%s: no update needed, %s is installed\n", name.c_str(),
                    outcome["installed"].asCString());
    else
        std::printf("%s: failed%s, %s is installed: %s\n", name.c_str(), late.c_str(),
                    outcome["installed"].asCString(), outcome["reason"].asCString());
}
} // namespace

FWUpdateSymbolManager& openRegistry(bool verbose)
{
    for (const ControlLibrary& library : findControlLibraries())
        requireLoadable(library);
    becomeDaemonUser();
    forwardDaemonLog(verbose);
    FWUpdateSymbolManager& manager = *FWUpdateSymbolManager::getInstance();
    if (!manager.getIsReady(false))
        throw common::Failure("this set has no module: \"fwctl doctor\" looks for the reason");
    return manager;
}

int reportOutcomes(const std::vector<UpdateOutcome>& outcomes, bool json)
{
    Json::Value all(Json::arrayValue);
    int status = outcomes.empty() ? kFailed : kNothingToDo;
    for (const UpdateOutcome& outcome : outcomes) {
        all.append(asJson(outcome));
        if (outcome.result == "failed")
            status = kFailed;
        else if (outcome.result == "updated" && status != kFailed)
            status = outcome.isLate || status == kTimedOut ? kTimedOut : kDone;
    }
    if (json)
        std::printf("%s\n", toJson(all).c_str());
    for (Json::ArrayIndex index = 0; !json && index < all.size(); ++index)
        print(all[index]);
    return status;
}
