#include "tools/fwctl/turn/update-monitor.h"

#include <algorithm>
#include <chrono>
#include <unistd.h>

#include "common/daemon/daemon-events.h"
#include "common/terminal/progress-line.h"
#include "src/src/fw-update-symbol.h"
#include "tools/fwctl/modules/daemon-log.h"

namespace fwctl
{

namespace
{
constexpr std::chrono::milliseconds kPause{200};

bool isThreadAlive(pid_t thread)
{
    return access(("/proc/self/task/" + std::to_string(thread)).c_str(), F_OK) == 0;
}
} // namespace

Json::Value asJson(const UpdateOutcome& outcome)
{
    Json::Value told;
    told["module"] = outcome.module->getLibName();
    told["result"] = outcome.result;
    told["reason"] = outcome.reason;
    told["late"] = outcome.isLate;
    return told;
}

UpdateMonitor::UpdateMonitor(std::list<FWUpdateSymbol>& modules, UpdateLink& link)
    : modules_(modules), link_(link), drawer_([this] { draw(); })
{
    onDaemonMessage([this](const std::string& message) { note(message); });
}

UpdateMonitor::~UpdateMonitor()
{
    onDaemonMessage({});
    isEnding_ = true;
    if (drawer_.joinable()) {
        drawer_.join();
    }
}

void UpdateMonitor::follow(FWUpdateSymbol& module)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    append(module);
}

void UpdateMonitor::append(FWUpdateSymbol& module)
{
    UpdateOutcome outcome;
    outcome.module = &module;
    outcome.thread = gettid();
    outcomes_.push_back(outcome);
    tell();
}

// Also what may not come to an end: the parent is the one to say so then.
void UpdateMonitor::tell()
{
    Json::Value all(Json::arrayValue);
    for (const UpdateOutcome& outcome : outcomes_) {
        all.append(asJson(outcome));
    }
    link_.tellOutcomes(all);
}

// Two libraries may have one firmware's name: each is updated, the first of them first.
void UpdateMonitor::begin(const std::string& firmwareName)
{
    FWUpdateSymbol* begun = nullptr;
    for (FWUpdateSymbol& module : modules_) {
        const bool isCandidate = module.firmwareName == firmwareName && module.getNeedUpdate();
        if (isCandidate && (begun == nullptr || (isKnown(*begun) && !isKnown(module)))) {
            begun = &module;
        }
    }
    if (begun != nullptr) {
        append(*begun);
    }
}

bool UpdateMonitor::isKnown(const FWUpdateSymbol& module) const
{
    return std::any_of(outcomes_.begin(), outcomes_.end(),
                       [&](const UpdateOutcome& outcome) { return outcome.module == &module; });
}

bool UpdateMonitor::isBegunHere() const
{
    return std::any_of(outcomes_.begin(), outcomes_.end(), [](const UpdateOutcome& outcome) {
        return outcome.thread == gettid() && outcome.result == "started";
    });
}

// On the thread that logs: the update's own, or the one that waits for it.
void UpdateMonitor::note(const std::string& message)
{
    using Kind = common::DaemonEventKind;
    const common::DaemonEvent event = common::readDaemonMessage(message);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (event.kind == Kind::kUpdateTried) {
        return begin(event.values[0]);
    }
    if (event.kind == Kind::kUpdateBegun) {
        if (!isBegunHere()) { // an encrypted image comes without a "Try"
            begin(event.values[0]);
        }
        return;
    }
    const bool late = event.kind == Kind::kUpdateTimedOut;
    const bool done = event.kind == Kind::kUpdateSucceeded;
    const bool spared = event.kind == Kind::kUpdateNotNeeded;
    for (UpdateOutcome& outcome : outcomes_) {
        const bool isStarted = outcome.result == "started";
        // The daemon's code takes one that failed before it was waited for for a late one.
        const bool isAtWork = isStarted && isThreadAlive(outcome.thread);
        outcome.isLate =
            outcome.isLate || (isAtWork && late && event.values[0] == outcome.module->firmwareName);
        if (outcome.thread != gettid() || !isStarted) {
            continue;
        }
        outcome.result = done ? "updated" : spared ? "not-needed" : "started";
        if (common::isComplaint(message)) {
            outcome.reason = message;
        }
    }
    if (late || done || spared) {
        tell();
    }
}

void UpdateMonitor::noteTrouble(const std::string& text)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    for (UpdateOutcome& outcome : outcomes_) {
        if (outcome.thread == gettid() && outcome.result == "started") {
            outcome.reason = text;
        }
    }
}

FWUpdateSymbol* UpdateMonitor::current()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return outcomes_.empty() || outcomes_.back().result != "started" ? nullptr : outcomes_.back().module;
}

void UpdateMonitor::draw()
{
    for (; !isEnding_; std::this_thread::sleep_for(kPause)) {
        FWUpdateSymbol* const module = current();
        unsigned int percent = 0;
        if (module != nullptr && module->getUpdateProgress(&percent) == 0) {
            link_.tellProgress(module->getLibName(), percent);
        }
    }
}

bool UpdateMonitor::waitForLateOnes()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const UpdateOutcome& outcome : outcomes_) {
        if (outcome.isLate && isThreadAlive(outcome.thread)) {
            return true;
        }
    }
    return false;
}

std::vector<UpdateOutcome> UpdateMonitor::finish()
{
    if (waitForLateOnes()) {
        link_.say(
            "fwctl: the update takes longer than expected and is still being written: do not switch the "
            "set off");
    }
    while (waitForLateOnes()) {
        std::this_thread::sleep_for(kPause);
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    for (UpdateOutcome& outcome : outcomes_) {
        outcome.result = outcome.result == "started" ? "failed" : outcome.result;
        const bool isSilent = outcome.result == "failed" && outcome.reason.empty();
        outcome.reason = isSilent ? "the control library gave no verdict" : outcome.reason;
    }
    return outcomes_;
}

} // namespace fwctl
