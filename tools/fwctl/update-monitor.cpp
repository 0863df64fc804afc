#include "update-monitor.h"

#include "common/progress-line.h"
#include "daemon-log.h"

#include "fw-update-symbol.h"

#include <chrono>
#include <cstdio>
#include <optional>
#include <unistd.h>

namespace
{
constexpr std::chrono::milliseconds kPause{200};

// The text between two fixed ones, when the message begins and ends with them.
std::optional<std::string> between(const std::string& message, const std::string& head,
                                   const std::string& tail)
{
    if (message.size() < head.size() + tail.size() || message.compare(0, head.size(), head) != 0 ||
        message.compare(message.size() - tail.size(), tail.size(), tail) != 0)
        return std::nullopt;
    return message.substr(head.size(), message.size() - head.size() - tail.size());
}

bool isAlive(pid_t thread)
{
    return access(("/proc/self/task/" + std::to_string(thread)).c_str(), F_OK) == 0;
}
} // namespace

UpdateMonitor::UpdateMonitor(std::list<FWUpdateSymbol>& modules)
    : modules_(modules), drawer_([this] { draw(); })
{
    onDaemonMessage([this](const std::string& message) { note(message); });
}

UpdateMonitor::~UpdateMonitor()
{
    onDaemonMessage({});
    isEnding_ = true;
    if (drawer_.joinable())
        drawer_.join();
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
}

void UpdateMonitor::begin(const std::string& firmwareName)
{
    for (FWUpdateSymbol& module : modules_) {
        if (module.firmwareName == firmwareName)
            return append(module);
    }
}

bool UpdateMonitor::isKnown(const std::string& firmwareName) const
{
    for (const UpdateOutcome& outcome : outcomes_) {
        if (outcome.module->firmwareName == firmwareName)
            return true;
    }
    return false;
}

// On the thread that logs: the update's own, or the one that waits for it.
void UpdateMonitor::note(const std::string& message)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (const auto name = between(message, "", " Firmware Update Try"))
        return begin(*name);
    if (const auto name = between(message, "========== [ ", " update start ] ==========")) {
        if (!isKnown(*name)) // an encrypted image comes without a "Try"
            begin(*name);
        return;
    }
    const auto late = between(message, "", " update timeout");
    const auto done = between(message, "========== [ ", " update succeeded ] ==========");
    const auto spared = between(message, "Error: ", " Firmware not need update");
    for (UpdateOutcome& outcome : outcomes_) {
        const std::string& name = outcome.module->firmwareName;
        outcome.isLate = outcome.isLate || late == name;
        outcome.result = done == name ? "updated" : spared == name ? "not-needed" : outcome.result;
        if (outcome.thread == gettid() && outcome.result == "started" && message.rfind("Error", 0) == 0)
            outcome.reason = message;
    }
}

FWUpdateSymbol* UpdateMonitor::current()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return outcomes_.empty() || outcomes_.back().result != "started" ? nullptr : outcomes_.back().module;
}

void UpdateMonitor::draw()
{
    common::ProgressLine line;
    for (; !isEnding_; std::this_thread::sleep_for(kPause)) {
        FWUpdateSymbol* const module = current();
        unsigned int percent = 0;
        if (module != nullptr && module->getUpdateProgress(&percent) == 0)
            line.show(module->getLibName(), percent);
    }
    line.finish();
}

bool UpdateMonitor::waitForLateOnes()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const UpdateOutcome& outcome : outcomes_) {
        if (outcome.isLate && isAlive(outcome.thread))
            return true;
    }
    return false;
}

std::vector<UpdateOutcome> UpdateMonitor::finish()
{
    if (waitForLateOnes())
        std::fprintf(stderr, "fwctl: the update takes longer than expected and is still being written: "
                             "do not switch the set off\n");
    while (waitForLateOnes())
        std::this_thread::sleep_for(kPause);
    const std::lock_guard<std::mutex> lock(mutex_);
    for (UpdateOutcome& outcome : outcomes_)
        outcome.result = outcome.result == "started" ? "failed" : outcome.result;
    return outcomes_;
}
