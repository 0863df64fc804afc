#include "tools/fwctl/modules/registry.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "common/json-text.h"
#include "tools/fwctl/commands/command.h"
#include "tools/fwctl/modules/daemon-log.h"
#include "tools/fwctl/modules/examination.h"
#include "tools/fwctl/modules/isolated.h"
#include "tools/fwctl/modules/library-calls.h"
#include "tools/fwctl/output.h"
#include "tools/fwctl/set-state.h"

namespace fwctl
{

namespace
{
// In the child, what libraries print is on its way to the parent, with what those of the parent's own kind
// say.
void passToParent(const std::string& line)
{
    std::fprintf(stderr, "%s\n", common::visible(line).c_str());
}

// For its scope nothing is printed by anybody.
class Silence
{
public:
    Silence()
    {
        const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nothing, STDOUT_FILENO);
        dup2(nothing, STDERR_FILENO);
        close(nothing);
    }
    ~Silence()
    {
        dup2(before_, STDOUT_FILENO);
        dup2(before_, STDERR_FILENO);
        close(before_);
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

private:
    int before_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3); // in the child both lead to the same
};

void requireLoadable()
{
    const std::vector<ControlLibrary> libraries = findControlLibraries();
    const std::vector<Json::Value> told = runIsolatedAll(
        libraries.size(),
        [&](std::size_t index, Telling& telling) {
            // Stays loaded, as all of them are in the registry.
            auto* const module = new FWUpdateSymbol(libraries[index].name, libraries[index].usr);
            telling.call("loading", libraries[index].name,
                         [&] { return module->loadSymbol(libraries[index].name); });
            if (!peekUpdateSemaphore().exists) { // it was made before
                throw common::Failure("the control library removes the update semaphore in loading");
            }
        },
        passToParent);
    for (std::size_t index = 0; index < libraries.size(); ++index) {
        if (told[index].isMember("failure")) {
            throw common::Failure(libraries[index].directory + libraries[index].name +
                                  ".so: " + told[index]["failure"].asString() +
                                  "; move it away: the daemon fails with it as well");
        }
    }
}

constexpr const char* kUnknown = "unknown";

// In a process of its own, as the next one finds it: neither what the library remembers of its update nor
// what it does to its process counts. A version that cannot be had is no proof of an update.
void askForInstalled(Json::Value& outcome)
{
    outcome["installed"] = kUnknown;
    std::string problem;
    for (const ControlLibrary& library : requireControlLibraries(outcome["module"].asString())) {
        const Json::Value told = askForVersion(library);
        outcome["installed"] = told["installed"].isNull() ? outcome["installed"] : told["installed"];
        problem = told.isMember("failure") ? ": " + told["failure"].asString() : problem;
    }
    if (outcome["result"] == "updated" && outcome["installed"] == kUnknown) {
        outcome["result"] = "failed";
        outcome["reason"] = "the control library reports success, but cannot tell its version" + problem;
    }
}

// Null when it is not known.
Json::Value offeredBy(const Json::Value& module, const std::string& source)
{
    for (const Json::Value& candidate : module["sources"]) {
        if (candidate["source"] == source) {
            return candidate["offered"];
        }
    }
    return {};
}

// Whether the library says that it has updated, and has nothing else to tell than before. One that tells what
// was offered already before is believed, and so is one that cannot tell.
void judge(Json::Value& outcome, const Before& before)
{
    for (const Json::Value& module : before.modules) {
        const Json::Value offered = offeredBy(module, before.source);
        const bool isOther = module["module"] != outcome["module"];
        const bool isBelieved = module["installed"].isNull() || module["installed"] != outcome["installed"] ||
                                module["installed"] == offered;
        if (isOther || isBelieved || outcome["result"] != "updated") {
            continue;
        }
        if (module["kind"] == "external") {
            outcome["result"] = "not-needed"; // which image there is, and whether it is newer, only it knows
            continue;
        }
        outcome["result"] = "failed";
        outcome["reason"] = "the control library reports success, but its version is the same as before" +
                            (offered.isNull() ? "" : " (" + offered.asString() + " was offered)");
    }
}

void printOutcome(const Json::Value& outcome)
{
    const std::string late = outcome["late"].asBool() ? ", after more than the expected time" : "";
    const std::string installed = outcome["installed"] == kUnknown
                                      ? "what is installed cannot be told"
                                      : outcome["installed"].asString() + " is installed";
    const std::string result = outcome["result"].asString();
    const std::string head = outcome["module"].asString() + ": ";
    if (result == "updated") {
        printLine(head + "updated, " + installed + late);
    } else if (result == "not-needed") {
        printLine(head + "no update needed, " + installed);
    } else if (result == "no-image") {
        printLine(head + outcome["reason"].asString() + "; " + installed);
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

int statusOfOutcomes(const Json::Value& outcomes)
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
    forwardDaemonLog([&link, verbose](const std::string& message) {
        link.noteDaemonMessage(message);
        if (verbose) {
            link.say("  | " + message);
        }
    });
    const auto load = [this] {
        const Silence silence; // they have had their say when each was loaded by itself
        return manager_.getIsReady(false);
    };
    if (!link.telling().call("loading", "", load)) {
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

Json::Value finishedOutcomes(UpdateMonitor& monitor)
{
    Json::Value all(Json::arrayValue);
    for (const UpdateOutcome& outcome : monitor.finish()) {
        all.append(asJson(outcome));
    }
    return all;
}

int reportOutcomes(Json::Value told, const Before& before, bool json)
{
    Json::Value& outcomes = told["outcomes"];
    if (told.isMember("failure") && outcomes.empty()) {
        const std::string culprit = told["culprit"].asString();
        throw common::Failure((culprit.empty() ? "" : culprit + ": ") + told["failure"].asString());
    }
    for (Json::Value& outcome : outcomes) {
        askForInstalled(outcome);
        judge(outcome, before);
        if (!json) {
            printOutcome(outcome);
        }
    }
    if (json) {
        std::printf("%s\n", common::compactJson(outcomes).c_str());
    }
    return told.isMember("failure") ? failAfter(outcomes, told["failure"].asString())
                                    : statusOfOutcomes(outcomes);
}

} // namespace fwctl
