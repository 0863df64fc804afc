#include "tools/fwctl/registry.h"

#include <cstdio>

#include "common/json-text.h"
#include "tools/fwctl/commands/command.h"
#include "tools/fwctl/daemon-log.h"
#include "tools/fwctl/examination.h"
#include "tools/fwctl/isolated.h"
#include "tools/fwctl/library-calls.h"
#include "tools/fwctl/output.h"

namespace fwctl
{

namespace
{
void requireLoadable()
{
    const std::vector<ControlLibrary> libraries = findControlLibraries();
    const std::vector<Json::Value> told =
        runIsolatedAll(libraries.size(), [&](std::size_t index, Telling& telling) {
            // Stays loaded, as all of them are in the registry.
            auto* const module = new FWUpdateSymbol(libraries[index].name, libraries[index].usr);
            telling.call("loading", [&] { return module->loadSymbol(libraries[index].name); });
        });
    for (std::size_t index = 0; index < libraries.size(); ++index) {
        if (told[index].isMember("failure")) {
            throw common::Failure(libraries[index].directory + libraries[index].name +
                                  ".so: " + told[index]["failure"].asString() +
                                  "; move it away: the daemon cannot start with it either");
        }
    }
}

Json::Value installedVersion(FWUpdateSymbol& module)
{
    FWUpdateSymbol::TextBuffer version = {};
    return module.getActiveVersion(version) == 0 ? version : "unknown";
}

// Asked for in a process of its own, after the one that updated has failed.
std::string askForInstalled(const std::string& name)
{
    std::string version = "unknown";
    for (const ControlLibrary& library : requireControlLibraries(name)) {
        const Json::Value module = examine(library);
        version = module["installed"].isNull() ? version : module["installed"].asString();
    }
    return version;
}

void print(const Json::Value& outcome)
{
    const std::string late = outcome["late"].asBool() ? ", after more than the expected time" : "";
    const std::string installed = outcome["installed"].asString() + " is installed";
    const std::string result = outcome["result"].asString();
    const std::string head = outcome["module"].asString() + ": ";
    if (result == "updated") {
        printLine(head + "updated, " + installed + late);
    } else if (result == "not-needed") {
        printLine(head + "no update needed, " + installed);
    } else {
        printLine(head + "failed" + late + ", " + installed + ": " + outcome["reason"].asString());
    }
}

// The child ended early; what it was updating then has that for its reason.
int failAfter(const Json::Value& outcomes, const std::string& failure)
{
    if (outcomes[outcomes.size() - 1]["result"] != "failed") {
        complain("after that " + failure + "; modules behind it were not tried");
    }
    return kFailed;
}

int statusOf(const Json::Value& outcomes)
{
    int status = outcomes.empty() ? kFailed : kNothingToDo;
    for (const Json::Value& outcome : outcomes) {
        if (outcome["result"] == "failed") {
            return kFailed;
        }
        if (outcome["result"] == "updated") {
            status = outcome["late"].asBool() || status == kTimedOut ? kTimedOut : kDone;
        }
    }
    return status;
}
} // namespace

Registry::Registry(UpdateLink& link, bool verbose) : manager_(*FWUpdateSymbolManager::getInstance())
{
    requireLoadable();
    if (verbose) {
        forwardDaemonLog([&link](const std::string& message) { link.say("  | " + message); });
    } else {
        forwardDaemonLog();
    }
    if (!link.telling().call("loading", [this] { return manager_.getIsReady(false); })) {
        throw common::Failure("this set has no module: \"fwctl doctor\" looks for the reason");
    }
    for (FWUpdateSymbol& module : manager_.firmwareItems) {
        watchCalls(module, link.telling(), [this](const std::string& text) {
            if (UpdateMonitor* const monitor = monitor_) {
                monitor->noteTrouble(text);
            }
        });
    }
}

FWUpdateSymbol& Registry::find(const std::string& name)
{
    for (FWUpdateSymbol& module : manager_.firmwareItems) {
        if (module.getLibName() == name) {
            return module;
        }
    }
    throw NoSuchModule(name);
}

Json::Value completeOutcomes(UpdateMonitor& monitor)
{
    Json::Value all(Json::arrayValue);
    for (const UpdateOutcome& outcome : monitor.finish()) {
        Json::Value told = asJson(outcome);
        told["installed"] = installedVersion(*outcome.module);
        all.append(told);
    }
    return all;
}

int reportOutcomes(Json::Value told, bool json)
{
    Json::Value& outcomes = told["outcomes"];
    if (told.isMember("failure") && outcomes.empty()) {
        const std::string culprit = told["culprit"].asString();
        throw common::Failure((culprit.empty() ? "" : culprit + ": ") + told["failure"].asString());
    }
    for (Json::Value& outcome : outcomes) {
        if (!outcome.isMember("installed")) {
            outcome["installed"] = askForInstalled(outcome["module"].asString());
        }
        if (!json) {
            print(outcome);
        }
    }
    if (json) {
        std::printf("%s\n", common::compactJson(outcomes).c_str());
    }
    return told.isMember("failure") ? failAfter(outcomes, told["failure"].asString()) : statusOf(outcomes);
}

} // namespace fwctl
