// Calls that are made again and again, and by several threads at a time.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gio/gio.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "appbinary_manager.h"
#include "applaunch.h"
#include "common/files/unique-fd.h"
#include "flagpost.h"
#include "hangwatch.h"
#include "norlog.h"
#include "platform/check/trials/calls-once.h"
#include "platform/check/trials/trial-list.h"
#include "platform/check/trials/trial.h"
#include "pralis.h"
#include "ps_mount.h"
#include "pwrctl.h"
#include "sysprop.h"
#include "trace_logger.h"

namespace platformcheck
{

namespace
{

// ---- What grows ----

struct Holdings {
    long descriptors = 0;
    long threads = 0;
    long processes = 0; // that this one has started
    long allocated = 0; // bytes of the C library's memory
    long mapped = 0;    // pages of the process
};

long entriesIn(const char* directory)
{
    std::error_code gone;
    const std::filesystem::directory_iterator entries(directory, gone);
    return gone ? 0 : static_cast<long>(std::distance(begin(entries), end(entries)));
}

// Those of other threads, too.
long children()
{
    long count = 0;
    std::error_code gone;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task", gone)) {
        std::ifstream in(thread.path() / "children");
        for (std::string process; in >> process;) {
            ++count;
        }
    }
    return count;
}

Holdings holdingsNow()
{
    Holdings now;
    now.descriptors = entriesIn("/proc/self/fd");
    now.threads = entriesIn("/proc/self/task");
    now.processes = children();
    std::ifstream("/proc/self/statm") >> now.mapped;
    const struct mallinfo2 memory = mallinfo2();
    now.allocated = static_cast<long>(memory.uordblks + memory.hblkhd);
    return now;
}

// What grows in every window of calls, whatever was kept for good in the first ones.
struct Growth {
    FindingId id;
    const char* what;
    long Holdings::* amount;
    double perCall; // less is none
};
constexpr Growth kGrowths[] = {
    {FindingId::DescriptorsGrow, "descriptors", &Holdings::descriptors, 0.04},
    {FindingId::ThreadsGrow, "threads", &Holdings::threads, 0.04},
    {FindingId::ProcessesGrow, "processes", &Holdings::processes, 0.04},
    {FindingId::MemoryGrows, "bytes", &Holdings::allocated, 24},
    {FindingId::MemoryGrows, "pages of memory", &Holdings::mapped, 0.5},
};

struct Repeated {
    const char* name;
    int calls;   // in a window
    int windows; // at most; the first ones are for what is kept for good
    void (*once)(Trial&);
};

// The number of times that there was time for: a slow platform is not a growing one.
int runWindow(Trial& trial, const Repeated& repeated)
{
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(2s).count();
    int times = 0;
    for (; times < repeated.calls && (times == 0 || common::realNow() < end); ++times) {
        repeated.once(trial);
    }
    trial.iterate(30ms); // what ends a moment later
    return times;
}

void judgeProcesses(Trial& trial, const Repeated& repeated)
{
    siginfo_t information = {};
    const bool isAny =
        waitid(P_ALL, 0, &information, WEXITED | WNOHANG | WNOWAIT) == 0 && information.si_pid != 0;
    trial.require(!isAny, FindingId::ProcessesGrow,
                  std::string(titleOf(repeated.name)) + ": a process has ended and was not waited for");
}

// What grows, as far as it has been seen.
struct Growing {
    const Growth* growth;
    long first;  // amount
    long latest; // amount, at the end of a window
    int stays = 0;
};

// Whether this is no growth, after so many times in this window, and in all. Somebody else who lets go of
// some memory at the end of a window may hide one that grows, but not two.
bool isOver(Growing& growing, const Holdings& now, int times, int all)
{
    const Growth& growth = *growing.growth;
    const long before = std::exchange(growing.latest, now.*growth.amount);
    const auto isLess = [&](long from, int calls) {
        return static_cast<double>(growing.latest - from) < growth.perCall * calls;
    };
    return isLess(before, times) && (isLess(growing.first, all) || ++growing.stays > 1);
}

// What waits to be worked off, requests in a queue or records that are not written yet, is let go of when its
// turn has come. As long as something becomes less nothing is said, however slow the machine is.
void waitForRest(Trial& trial, std::vector<Growing>& growing, int all)
{
    constexpr std::chrono::nanoseconds kMost = 15s; // a trial without calls is ended not much later
    constexpr std::chrono::nanoseconds kWithoutLess = 5s;
    constexpr long kLess = 64; // such a part of what has grown is less
    const std::int64_t begin = common::realNow();
    std::int64_t latestLess = begin;
    const auto isNone = [&](const Growing& one) {
        return static_cast<double>(one.latest - one.first) < one.growth->perCall * all;
    };
    while (!growing.empty() && common::realNow() - latestLess < kWithoutLess.count()) {
        if (common::realNow() - begin > kMost.count()) {
            growing.clear();
            break;
        }
        trial.iterate(200ms);
        const Holdings now = holdingsNow();
        for (Growing& one : growing) {
            const long less = one.latest - now.*one.growth->amount;
            if (less > 0 && less * kLess >= one.latest - one.first) {
                one.latest -= less;
                latestLess = common::realNow();
            }
        }
        growing.erase(std::remove_if(growing.begin(), growing.end(), isNone), growing.end());
    }
}

// Stops when nothing grows.
void repeat(Trial& trial, const Repeated& repeated)
{
    constexpr int kFirstWindows = 2;
    constexpr int kLeastTimes =
        260; // what is wrong from some time on is wrong by then, if there is time for it
    constexpr std::chrono::nanoseconds kTimeForThem = 600ms;
    constexpr int kLeastWindows = 20; // then a slow machine may give up
    constexpr std::chrono::nanoseconds kMostTime = 15s;
    constexpr std::chrono::nanoseconds kTooLate = 2 * kMostTime; // for the calls of one window
    const std::int64_t start = common::realNow();
    const auto isTime = [&] { return common::realNow() - start < kTimeForThem.count(); };
    for (int window = 0, times = 0; window < kFirstWindows || (times < kLeastTimes && isTime()); ++window) {
        times += runWindow(trial, repeated);
    }
    const Holdings first = holdingsNow();
    std::vector<Growing> growing;
    for (const Growth& growth : kGrowths) {
        growing.push_back({&growth, first.*growth.amount, first.*growth.amount});
    }
    const std::int64_t begin = common::realNow();
    int all = 0;
    for (int window = kFirstWindows; window < repeated.windows && !growing.empty(); ++window) {
        const std::chrono::nanoseconds taken(common::realNow() - begin);
        if (window >= kLeastWindows && taken > kMostTime) {
            break;
        }
        if (taken > kTooLate && all < repeated.calls) {
            growing.clear();
            break;
        }
        const int times = runWindow(trial, repeated);
        all += times;
        const Holdings now = holdingsNow();
        const auto isNone = [&](Growing& one) { return isOver(one, now, times, all); };
        growing.erase(std::remove_if(growing.begin(), growing.end(), isNone), growing.end());
    }
    waitForRest(trial, growing, all);
    for (const Growing& one : growing) {
        trial.found(one.growth->id, std::string(titleOf(repeated.name)) + ": " +
                                        std::to_string(one.latest - one.first) + " more " + one.growth->what +
                                        " after " + std::to_string(all) + " times");
    }
    judgeProcesses(trial, repeated);
}

// ---- What is repeated ----

// A log may keep its latest records in memory, which grows until there are so many. Whether there was time
// for them.
bool fillLogs(Trial& trial)
{
    constexpr int kMost = 5000;
    constexpr int kLast = 1000; // by which nothing grows any more
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(5s).count();
    long before = 0;
    int number = 0;
    for (; number < kMost && common::realNow() < end; ++number) {
        before = number == kMost - kLast ? holdingsNow().allocated : before;
        platformLogOnce(trial);
        traceLogOnce(trial);
    }
    constexpr long kLeast = 24; // bytes of a record
    return number == kMost && holdingsNow().allocated - before < kLeast * kLast;
}

// A thread that comes, makes some calls, and goes, as the daemon's do.
void threadOnce(Trial& trial)
{
    static const bool areLogsFull = fillLogs(trial);
    trial.onThread([&] {
        int value = 0;
        trial.call("pralis_set_int", [] { return pralis_set_int(kProgress, 5); });
        trial.call("pralis_get_int", [&] { return pralis_get_int(kProgress, &value); });
        powerOnce(trial);
        flagsOnce(trial);
        propertyOnce(trial);
        subscriptionOnce(trial);
        powerEventsOnce(trial);
        if (areLogsFull) {
            platformLogOnce(trial);
            traceLogOnce(trial);
        }
    });
}

constexpr int kWindowsOfLogs = 240; // what is kept in memory may be many records

constexpr Repeated kRepeated[] = {
    {"again-settings", 60, 40, settingsOnce},
    {"again-subscription", 30, 40, subscriptionOnce},
    {"again-notification", 30, 40, notificationOnce},
    {"again-power", 40, 40, powerOnce},
    {"again-power-events", 30, 40, powerEventsOnce},
    {"again-flags", 30, 40, flagsOnce},
    {"again-watchdog", 20, 40, watchdogOnce},
    {"again-property", 40, 40, propertyOnce},
    {"again-package", 20, 40, packageOnce},
    {"again-launch", 20, 40, launchOnce},
    {"again-mount", 10, 40, mountOnce},
    {"again-mounted", 4, 40, mountedOnce},
    {"again-platform-log", 400, kWindowsOfLogs, platformLogOnce},
    {"again-trace-log", 400, kWindowsOfLogs, traceLogOnce},
    {"again-threads", 8, 40, threadOnce},
};

template <std::size_t index>
void tryRepeated(Trial& trial)
{
    repeat(trial, kRepeated[index]);
}

template <std::size_t... indices>
std::vector<TrialKind> kindsOf(std::index_sequence<indices...>)
{
    return {TrialKind{kRepeated[indices].name, tryRepeated<indices>}...};
}

// ---- Together ----

// A descriptor of this thread's own: whoever closes a number twice, or one that is not his, closes it now and
// then.
bool keepDescriptor()
{
    const common::UniqueFd own(memfd_create("platform-check", MFD_CLOEXEC));
    struct stat before = {};
    struct stat after = {};
    if (own.get() < 0 || fstat(own.get(), &before) != 0) {
        return true; // there is none to be had
    }
    std::this_thread::sleep_for(200us);
    return fstat(own.get(), &after) == 0 && before.st_ino == after.st_ino && before.st_dev == after.st_dev;
}

// What one thread does: whether it got what it must.
using Work = std::function<bool()>;

bool writeAndRead(Trial& trial, const char* key, int value)
{
    int read = -1;
    return trial.call("pralis_set_int", [=] { return pralis_set_int(key, value); }) == 0 &&
           trial.call("pralis_get_int", [&] { return pralis_get_int(key, &read); }) == 0 && read == value;
}

constexpr int kResting = 321;

bool readResting(Trial& trial, const char* key)
{
    int read = -1;
    return trial.call("pralis_get_int", [&] { return pralis_get_int(key, &read); }) == 0 && read == kResting;
}

bool raiseAndLower(Trial& trial, const char* flag)
{
    return trial.call("FlagpostEventDone", [=] { return FlagpostEventDone(flag); }) == 0 &&
           trial.call("FlagpostIsDone", [=] { return FlagpostIsDone(flag); }) >= 1 &&
           trial.call("FlagpostResetEvent", [=] { return FlagpostResetEvent(flag); }) == 0 &&
           trial.call("FlagpostIsDone", [=] { return FlagpostIsDone(flag); }) < 1;
}

bool lockAndUnlock(Trial& trial, int kind)
{
    return trial.call("pwrctl_lock_state", [=] { return pwrctl_lock_state(kind, 60000); }) == 0 &&
           trial.call("pwrctl_unlock_state", [=] { return pwrctl_unlock_state(kind); }) == 0;
}

bool readVersion(Trial& trial)
{
    char* value = nullptr;
    const int result =
        trial.call("sysprop_get_value_string", [&] { return sysprop_get_value_string(128, &value); });
    const std::string text = result == 0 && value != nullptr ? value : "";
    trial.call("free() of a text of sysprop_get_value_string",
               [=] { std::free(result == 0 ? value : nullptr); });
    static const std::string first = text; // by one thread
    return !text.empty() && text == first;
}

bool makeRequest(Trial& trial)
{
    applaunch_h request = nullptr;
    return trial.call("applaunch_create", [&] { return applaunch_create(&request); }) == 0 &&
           request != nullptr &&
           trial.call("applaunch_set_app_id",
                      [&] {
                          return applaunch_set_app_id(request, "org.pellor.tarnwick.platform_check.none");
                      }) == 0 &&
           trial.call("applaunch_destroy", [&] { return applaunch_destroy(request); }) == 0;
}

// One for each thread: whether callbacks of several keys are told apart is seen elsewhere.
template <char thread>
void neverMind(keynode*, void*)
{
}

bool subscribeAndEnd(Trial& trial, const char* key, pralis_key_changed_cb callback)
{
    return trial.call("pralis_notify_key_changed",
                      [=] { return pralis_notify_key_changed(key, callback, nullptr); }) == 0 &&
           trial.call("pralis_ignore_key_changed",
                      [=] { return pralis_ignore_key_changed(key, callback); }) == 0;
}

struct Worker {
    const char* what;
    Work work;
    FindingId otherwise = FindingId::NotTogether;
};

constexpr int kRounds = 60; // of each, or so

void runTogether(Trial& trial, const std::vector<Worker>& all, int roundsOfEach = kRounds)
{
    std::vector<Worker> workers; // what is wrong alone is told elsewhere
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(20s).count(); // or there is no end
    std::copy_if(all.begin(), all.end(), std::back_inserter(workers),
                 [&](const Worker& worker) { return common::realNow() < end && worker.work(); });
    std::atomic<int> rounds{0};
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    threads.reserve(workers.size());
    for (const Worker& worker : workers) {
        threads.emplace_back([&trial, &worker, &rounds, &isOver] {
            while (!isOver) {
                const std::int64_t begin = common::realNow();
                const bool isRight = worker.work();
                const std::chrono::nanoseconds taken(common::realNow() - begin);
                if (!isRight && taken < 3s) { // else its time was up, on a busy machine
                    trial.found(worker.otherwise,
                                std::string(worker.what) + ": wrong beside other calls, and right alone");
                    return;
                }
                rounds += isRight ? 1 : 0;
                std::this_thread::sleep_for(1ms); // the machine is for others, too
            }
        });
    }
    trial.iterate(4s, [&] { return rounds >= roundsOfEach * static_cast<int>(workers.size()); });
    isOver = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void tryTogether(Trial& trial)
{
    trial.call("pralis_set_int", [] { return pralis_set_int(kWorking, kResting); });
    const std::vector<Worker> workers = {
        {"a key",
         [&] {
             static std::atomic<int> v{0};
             return writeAndRead(trial, kProgress, ++v);
         }},
        {"another key",
         [&] {
             static std::atomic<int> v{500000};
             return writeAndRead(trial, kStatus, ++v);
         }},
        {"a flag", [&] { return raiseAndLower(trial, "/tmp/.tarnwick_check_a"); }},
        {"another flag", [&] { return raiseAndLower(trial, "/tmp/.tarnwick_check_b"); }},
        {"a lock of kind 0", [&] { return lockAndUnlock(trial, 0); }},
        {"a lock of kind 2", [&] { return lockAndUnlock(trial, 2); }},
        {"the power state", [&] { return trial.call("pwrctl_get_state", pwrctl_get_state) >= 0; }},
        {"a subscription", [&] { return subscribeAndEnd(trial, kWorking, neverMind<'A'>); }},
        {"another subscription", [&] { return subscribeAndEnd(trial, kStatus, neverMind<'B'>); }},
        {"a key that nobody writes", [&] { return readResting(trial, kWorking); }},
        {"a descriptor of others", keepDescriptor, FindingId::DescriptorClosed},
        {"a descriptor of others", keepDescriptor, FindingId::DescriptorClosed},
        {"the version", [&] { return readVersion(trial); }},
        {"the version", [&] { return readVersion(trial); }},
        {"the version", [&] { return readVersion(trial); }},
        {"the version", [&] { return readVersion(trial); }},
        {"a launch", [&] { return makeRequest(trial); }},
        {"a launch", [&] { return makeRequest(trial); }},
        {"logs",
         [&] {
             platformLogOnce(trial);
             traceLogOnce(trial);
             return true;
         }},
        {"logs",
         [&] {
             platformLogOnce(trial);
             traceLogOnce(trial);
             return true;
         }},
    };
    runTogether(trial, workers);
}

// As many as the daemon has at most, and of one service: the time of each call is judged beside the others.
void tryPowerTogether(Trial& trial)
{
    const auto state = [&] { return trial.call("pwrctl_get_state", pwrctl_get_state) >= 0; };
    constexpr int kEnough = 8;
    runTogether(trial,
                {{"a lock of kind 0", [&] { return lockAndUnlock(trial, 0); }},
                 {"a lock of kind 2", [&] { return lockAndUnlock(trial, 2); }},
                 {"the power state", state},
                 {"the power state", state},
                 {"the power state", state},
                 {"the power state", state}},
                kEnough);
}

// Whether a key without a value has the result that it has alone.
bool readNothing(Trial& trial)
{
    char* value = nullptr;
    const int result =
        trial.call("sysprop_get_value_string", [&] { return sysprop_get_value_string(0x7ffffff0, &value); });
    trial.call("free() of a text of sysprop_get_value_string",
               [=] { std::free(result == 0 ? value : nullptr); });
    static const int first = result; // by one thread
    return (result == 0) == (first == 0);
}

bool fiveTimes(const std::function<bool()>& ask)
{
    bool isRight = true;
    for (int time = 0; time < 5; ++time) {
        isRight = ask() && isRight;
    }
    return isRight;
}

// Without a pause between them, so that answers of one meet those of the others.
void tryPropertiesTogether(Trial& trial)
{
    const auto version = [&] { return fiveTimes([&] { return readVersion(trial); }); };
    const auto nothing = [&] { return fiveTimes([&] { return readNothing(trial); }); };
    constexpr int kThreadsOfEach = 4;
    std::vector<Worker> workers;
    for (int thread = 0; thread < kThreadsOfEach; ++thread) {
        workers.push_back({"the version", version});
        workers.push_back({"a property without a value", nothing});
    }
    constexpr int kEnough = 8;
    runTogether(trial, workers, kEnough);
}

// ---- Quick calls beside slow ones ----

struct QuickCall {
    const char* name;
    int (*make)();
};

int readProgress()
{
    int value = 0;
    return pralis_get_int(kProgress, &value);
}

// What the main loop asks.
constexpr QuickCall kQuickCalls[] = {
    {"pwrctl_get_state, beside a request", pwrctl_get_state},
    {"pralis_get_int, beside a request", readProgress},
    {"FlagpostIsDone, beside a request", [] { return FlagpostIsDone("/tmp/.tarnwick_check_beside"); }},
};

// The times of the quick ones are judged; how long the request takes is judged elsewhere.
void callBeside(Trial& trial, void (*request)(Trial&))
{
    const Meanwhile underWay([&] { request(trial); });
    trial.iterate(10ms);
    std::vector<std::thread> threads;
    for (const QuickCall& quick : kQuickCalls) {
        threads.emplace_back([&] { trial.call(quick.name, quick.make); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void tryBeside(Trial& trial, void (*request)(Trial&))
{
    constexpr int kTimes = 3; // of which the middle one counts
    for (int time = 0; time < kTimes; ++time) {
        callBeside(trial, request);
    }
}

} // namespace

std::vector<TrialKind> repeatTrials()
{
    std::vector<TrialKind> trials = kindsOf(std::make_index_sequence<std::size(kRepeated)>());
    trials.push_back({"together", tryTogether});
    trials.push_back({"power-together", tryPowerTogether});
    trials.push_back({"properties-together", tryPropertiesTogether});
    trials.push_back({"beside-packages", [](Trial& trial) { tryBeside(trial, packageOnce); }});
    trials.push_back({"beside-launches", [](Trial& trial) { tryBeside(trial, launchOnce); }});
    trials.push_back({"beside-mounts", [](Trial& trial) { tryBeside(trial, mountOnce); }});
    return trials;
}

} // namespace platformcheck
