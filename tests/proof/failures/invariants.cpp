#include "tests/proof/failures/invariants.h"

#include <algorithm>
#include <cstring>

#include "common/daemon/daemon-events.h"
#include "platform/fake/fake-platform.h"
#include "tests/proof/failures/wrapped-calls.h"
#include "tests/proof/process/machine.h"
#include "tests/proof/process/places.h"

namespace proof
{

namespace
{

constexpr const char* kStatus = "memory/ep_firmware_update_app/fw_update_status";
constexpr const char* kProgress = "memory/ep_firmware_update_app/fw_update_progress";
constexpr const char* kWorking = "memory/enterprise/swupgrade/working_status";
constexpr const char* kImageSum = ", 28458147)"; // of every sound image (places.cpp)
const std::string kMountOf = "PS_Mount(\"-o ro,loop,nodev,nosuid /opt/usr/apps/appbinarymanager/";

using Trace = std::vector<std::string>;
using Texts = std::vector<std::string>;

bool has(const std::string& line, const std::string& part)
{
    return line.find(part) != std::string::npos;
}

bool startsWith(const std::string& line, const std::string& start)
{
    return line.rfind(start, 0) == 0;
}

long countOf(const Trace& trace, const std::string& part)
{
    return std::count_if(trace.begin(), trace.end(),
                         [&](const std::string& line) { return has(line, part); });
}

// The last line with that part before the one at `end`; -1: none.
long lastBefore(const Trace& trace, long end, const std::string& part)
{
    while (--end >= 0 && !has(trace[static_cast<size_t>(end)], part)) {
    }
    return end;
}

bool isAnyBetween(const Trace& trace, long first, long end, const std::string& part)
{
    return lastBefore(trace, end, part) > first;
}

bool hasEnded(const Trace& trace)
{
    return countOf(trace, "quick_exit(") > 0;
}

// The session with the upgrade UI has come to its end, as the states tell.
bool hasSessionEnded(const Trace& trace)
{
    for (const char* const state : {"log 6 15", "log 6 16", "log 6 17", "log 6 18"}) {
        if (std::find(trace.begin(), trace.end(), state) != trace.end()) {
            return true;
        }
    }
    return false;
}

// ---- One by one ----

Texts exitsOnce(const Story&, const Trace& trace)
{
    if (!hasEnded(trace)) {
        return {"the service has not ended"};
    }
    if (trace.back() != "quick_exit(0)") {
        return {"it ended by " + trace.back()};
    }
    return {};
}

Texts finalizesOnce(const Story&, const Trace& trace)
{
    const long times = countOf(trace, "> service finalize") + countOf(trace, "log 6 service finalize");
    if (times == 1) {
        return {};
    }
    return {"it was finalized " + std::to_string(times) + " times"};
}

Texts releases(const Story&, const Trace& trace)
{
    const FakePlatform& platform = fakePlatform();
    Texts held = heldByDaemon();
    const bool isReboot = countOf(trace, "pwrctl_request_reboot(536870924)") > 0;
    for (const PowerLock& lock : platform.heldPowerLocks()) {
        if (lock.kind == 2 || isReboot) { // the other one ends by its duration
            held.push_back("power lock " + std::to_string(lock.kind));
        }
    }
    if (platform.isSubscribedToPowerState()) {
        held.emplace_back("the subscription of the power state");
    }
    if (platform.isSubscribedToPowerOff()) {
        held.emplace_back("the subscription of power-off");
    }
    if (hasSessionEnded(trace) && platform.isSubscribed(kStatus)) {
        held.emplace_back("the subscription of the status key");
    }
    if (platform.watchdogPeriod()) {
        held.emplace_back("the watchdog");
    }
    const bool isLaunching =
        isAnyBetween(trace, lastBefore(trace, static_cast<long>(trace.size()), "log 6 8"),
                     static_cast<long>(trace.size()), "log 6 ");
    if (isLaunching && hasSessionEnded(trace) && platform.openLaunchRequests() != 0) {
        held.emplace_back("a launch request");
    }
    for (std::string& one : held) {
        one += " is not given back";
    }
    return held;
}

Texts keepsSemaphore(const Story& story, const Trace&)
{
    const int value = machine::semaphoreValue();
    if (value == 1 || (story.isCut && value == 0)) {
        return {};
    }
    return {"the semaphore is at " + std::to_string(value)};
}

Texts removesList(const Story&, const Trace&)
{
    return places->list() == "-" ? Texts{} : Texts{"the list file is there"};
}

// Whether what mounted the package at that line was an update, and one that had nothing (more) to do.
bool wasUnmounted(const Trace& trace, long mounted, const std::string& firmware)
{
    const long end = static_cast<long>(trace.size());
    const bool isUpdate = lastBefore(trace, mounted, firmware + " Firmware Update Try") >
                          lastBefore(trace, mounted, firmware + " Firmware isNeedUpdateModules Try");
    return isUpdate &&
           (isAnyBetween(trace, mounted, end, "[ " + firmware + " update succeeded ]") ||
            isAnyBetween(trace, mounted, end, "Error: " + firmware + " Firmware not need update"));
}

// The last check of a module leaves its package mounted, and so does an update that fails.
Texts leavesNoMount(const Story& story, const Trace& trace)
{
    Texts texts;
    for (const Module& module : story.television.modules) {
        if (module.id.empty()) {
            continue;
        }
        const int mounts = places->mountsOf(module.id);
        const long mounted = lastBefore(trace, static_cast<long>(trace.size()), kMountOf + module.id);
        const bool isLeft = mounted >= 0 && !wasUnmounted(trace, mounted, module.id.substr(strlen("emp")));
        if (mounts > (isLeft ? 1 : 0)) {
            texts.push_back(module.id + " is mounted " + std::to_string(mounts) + " times");
        }
    }
    return texts;
}

// The failure that the call on that line was met with; empty: none.
std::string failureOf(const Trace& trace, long at)
{
    const std::string before = at > 0 ? trace[static_cast<size_t>(at) - 1] : "";
    return startsWith(before, "fails: ") ? before : "";
}

// What is missing of the check that stands before a write; empty: nothing.
std::string missingCheck(const Trace& trace, long write, const std::string& module, const std::string& image)
{
    const long asked = lastBefore(trace, write, module + " checkVersion(");
    const long told = lastBefore(trace, asked, module + " setContext(");
    if (asked < 0 || told < 0) {
        return "its library was not asked before";
    }
    const bool isStick = image.empty(); // whose library may refuse the context
    if (!isStick && has(failureOf(trace, told), "setContext")) {
        return "its library had refused the context";
    }
    if (has(failureOf(trace, asked), "checkVersion") && !has(failureOf(trace, asked), "verdict=2")) {
        return "its library had not agreed";
    }
    return isAnyBetween(trace, asked, write, image) ? "" : "its image was not checked";
}

// `MODULE doUpdate("PATH", SUM)`, or the content of an encrypted image.
std::string wrongWrite(const Trace& trace, long at)
{
    const std::string& line = trace[static_cast<size_t>(at)];
    const std::string module = line.substr(0, line.find(' '));
    if (has(line, " doUpdate_decryption(")) {
        const long verified = lastBefore(trace, at, "verifyFile(");
        const bool isSigned = verified < 0 || has(trace[static_cast<size_t>(verified)], ") = 1");
        if (!isSigned) {
            return "its signature is none";
        }
        return has(line, "(" + wholeImage() + ")") ? missingCheck(trace, at, module, "")
                                                   : "its image is not whole";
    }
    const size_t quote = line.find('"');
    const std::string path = line.substr(quote + 1, line.rfind('"') - quote - 1);
    if (!has(line, kImageSum)) {
        return "its image is not sound";
    }
    return missingCheck(trace, at, module, "read whole: " + path);
}

Texts writesWhatIsChecked(const Story&, const Trace& trace)
{
    Texts texts;
    for (size_t at = 0; at < trace.size(); ++at) {
        if (!has(trace[at], " doUpdate(\"") && !has(trace[at], " doUpdate_decryption(")) {
            continue;
        }
        if (startsWith(trace[at], "fails: ")) {
            continue;
        }
        const std::string wrong = wrongWrite(trace, static_cast<long>(at));
        if (!wrong.empty()) {
            texts.push_back(trace[at] + ": " + wrong);
        }
    }
    return texts;
}

Texts saysWhatIsKnown(const Story&, const Trace& trace)
{
    Texts texts;
    for (const std::string& line : trace) {
        constexpr size_t kPriority = 6; // "log 6 "
        const bool isKnown = !startsWith(line, "log ") || common::isDaemonText(line.substr(kPriority));
        if (!isKnown || startsWith(line, "GLib: ")) {
            texts.push_back(line);
        }
    }
    return texts;
}

Texts progresses(const Story&, const Trace&)
{
    Texts texts;
    int last = 0;
    for (const auto& [key, value] : fakePlatform().settingWrites()) {
        if (key != kProgress) {
            continue;
        }
        if (value < last || value > 100) {
            texts.push_back("from " + std::to_string(last) + " to " + std::to_string(value));
        }
        last = value;
    }
    return texts;
}

Texts releasesWorking(const Story&, const Trace& trace)
{
    int last = 0;
    for (const auto& [key, value] : fakePlatform().settingWrites()) {
        last = key == kWorking ? value : last;
    }
    const bool isLeft = hasSessionEnded(trace) && last != 0;
    return isLeft ? Texts{"the working-status key is at " + std::to_string(last)} : Texts{};
}

struct Rule {
    Invariant invariant;
    Texts (*breaches)(const Story& story, const Trace& trace);
    bool isOfTheEnd; // of a service that has ended
};

constexpr Rule kRules[] = {
    {{"exit", "the process ends once, with status 0"}, exitsOnce, false},
    {{"finalize", "the service is finalized once"}, finalizesOnce, true},
    {{"released", "power locks, subscriptions, watchdog, launch requests and files are given back"},
     releases,
     true},
    {{"semaphore", "the semaphore is at 1, unless an update was cut"}, keepsSemaphore, true},
    {{"list", "the list file is gone"}, removesList, true},
    {{"mounts", "nothing is mounted but what a check or a failed update leaves"}, leavesNoMount, true},
    {{"written", "no firmware is written that was not checked"}, writesWhatIsChecked, false},
    {{"messages", "no message is outside the table"}, saysWhatIsKnown, false},
    {{"progress", "the progress key never falls"}, progresses, false},
    {{"working", "the working-status key is released with the session"}, releasesWorking, true},
};

} // namespace

const std::vector<Invariant>& invariants()
{
    static const std::vector<Invariant> all = [] {
        std::vector<Invariant> list;
        for (const Rule& rule : kRules) {
            list.push_back(rule.invariant);
        }
        return list;
    }();
    return all;
}

std::vector<Breach> breachesIn(const Story& story, const Trace& trace)
{
    std::vector<Breach> breaches;
    for (const Rule& rule : kRules) {
        if (rule.isOfTheEnd && !hasEnded(trace)) {
            continue;
        }
        for (const std::string& text : rule.breaches(story, trace)) {
            breaches.push_back({rule.invariant.name, text});
        }
    }
    return breaches;
}

bool isToldAllTheSame(const Story& story, const Trace& trace)
{
    const bool hasNextStandby = std::count(story.events.begin(), story.events.end(), "power:0>2") > 1;
    constexpr const char* kMadeGood[] = {"pthread_create",
                                         "sem_wait#1=EINTR",
                                         "sem_wait#2=EINTR",
                                         "sem_wait#3=EINTR",
                                         "hangwatch_watchdog_notify",
                                         "madvise",
                                         "sem_close",
                                         "fclose",
                                         "close",
                                         "allUpdateDone"};
    for (size_t at = 0; at < trace.size(); ++at) {
        if (!startsWith(trace[at], "fails: ")) {
            continue;
        }
        const auto isIt = [&](const char* call) {
            return startsWith(trace[at], std::string("fails: ") + call);
        };
        const std::string before = at > 0 ? trace[at - 1] : "";
        const bool isWorker = before == "sem_wait()";                           // its update counts as failed
        const bool isStandby = has(before, "try fw update") && !hasNextStandby; // which makes it good
        if (std::none_of(std::begin(kMadeGood), std::end(kMadeGood), isIt) || isWorker || isStandby) {
            return false;
        }
    }
    return true;
}

std::vector<Breach> missedMilestones(const Story& story, const Trace& trace)
{
    std::vector<Breach> missed;
    auto at = trace.begin();
    for (const std::string& milestone : story.milestones) {
        if (milestone[0] == '!') {
            if (countOf(trace, milestone.substr(1)) > 0) {
                missed.push_back({"story", "it has " + milestone.substr(1)});
            }
            continue;
        }
        const auto found =
            std::find_if(at, trace.end(), [&](const std::string& line) { return has(line, milestone); });
        if (found == trace.end()) {
            missed.push_back({"story", "it does not come to " + milestone});
            break;
        }
        at = found + 1;
    }
    return missed;
}

} // namespace proof
