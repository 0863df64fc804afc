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

#include "appbinary_manager.h"
#include "applaunch.h"
#include "common/files/unique-fd.h"
#include "flagpost.h"
#include "hangwatch.h"
#include "norlog.h"
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

// Not __FILE__, which would tell where this program was built.
constexpr const char* kRepeatTrials = "repeated.cpp";

// ---- What grows ----

struct Holdings {
    long descriptors = 0;
    long threads = 0;
    long allocated = 0; // bytes of the C library's memory
    long mapped = 0;    // pages of the process
};

long entriesIn(const char* directory)
{
    std::error_code gone;
    const std::filesystem::directory_iterator entries(directory, gone);
    return gone ? 0 : static_cast<long>(std::distance(begin(entries), end(entries)));
}

Holdings holdingsNow()
{
    Holdings now;
    now.descriptors = entriesIn("/proc/self/fd");
    now.threads = entriesIn("/proc/self/task");
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
    {FindingId::DescriptorsGrow, "descriptors", &Holdings::descriptors, 0.1},
    {FindingId::ThreadsGrow, "threads", &Holdings::threads, 0.1},
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
    constexpr int kLeast = 4;
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(2s).count();
    int times = 0;
    for (; times < repeated.calls && (times < kLeast || common::realNow() < end); ++times) {
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

// Stops at the first window in which nothing grows.
void repeat(Trial& trial, const Repeated& repeated)
{
    constexpr int kFirstWindows = 2;
    constexpr int kLeastWindows = 20; // then a slow machine may give up
    constexpr std::chrono::seconds kMostTime = 15s;
    std::vector<const Growth*> growing;
    for (const Growth& growth : kGrowths) {
        growing.push_back(&growth);
    }
    for (int window = 0; window < kFirstWindows; ++window) {
        runWindow(trial, repeated);
    }
    const Holdings first = holdingsNow();
    Holdings before = first;
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(kMostTime).count();
    int window = kFirstWindows;
    int all = 0;
    for (;
         window < repeated.windows && !growing.empty() && (window < kLeastWindows || common::realNow() < end);
         ++window) {
        const int times = runWindow(trial, repeated);
        all += times;
        const Holdings after = holdingsNow();
        const auto stays = [&](const Growth* growth) {
            return static_cast<double>(after.*growth->amount - before.*growth->amount) <
                   growth->perCall * times;
        };
        growing.erase(std::remove_if(growing.begin(), growing.end(), stays), growing.end());
        before = after;
    }
    for (const Growth* const growth : growing) {
        trial.found(growth->id, std::string(titleOf(repeated.name)) + ": " +
                                    std::to_string(before.*growth->amount - first.*growth->amount) +
                                    " more " + growth->what + " after " + std::to_string(all) + " times");
    }
    judgeProcesses(trial, repeated);
}

// ---- What is repeated ----

void onKey(keynode* node, void* data)
{
    pralis_keynode_get_int(node);
    ++*static_cast<int*>(data);
}

int heardKeys = 0;

void settingsOnce(Trial& trial)
{
    int value = 0;
    trial.call("pralis_set_int", [] { return pralis_set_int(kProgress, 5); });
    trial.call("pralis_get_int", [&] { return pralis_get_int(kProgress, &value); });
    trial.call("pralis_get_int",
               [&] { return pralis_get_int("memory/tarnwick/platform_check/no_such_key", &value); });
}

// Told once: the first time that it fails is what counts.
void expectSuccess(Trial& trial, FindingId otherwise, const char* name, int (*call)())
{
    const int result = trial.call(name, call);
    if (!trial.hasFound()) {
        trial.require(result == 0, otherwise,
                      std::string(name) + ", again and again: the result is " + std::to_string(result));
    }
}

void subscriptionOnce(Trial& trial)
{
    expectSuccess(trial, FindingId::NotSubscribed, "pralis_notify_key_changed",
                  [] { return pralis_notify_key_changed(kStatus, onKey, &heardKeys); });
    expectSuccess(trial, FindingId::NotUnsubscribed, "pralis_ignore_key_changed",
                  [] { return pralis_ignore_key_changed(kStatus, onKey); });
}

// The subscription of this one stands for as long as its process does.
void notificationOnce(Trial& trial)
{
    static const bool isSubscribed = pralis_notify_key_changed(kStatus, onKey, &heardKeys) == 0;
    static int value = 0;
    const int before = heardKeys;
    ++value;
    trial.call("pralis_set_int", [] { return pralis_set_int(kStatus, value % 4); });
    if (isSubscribed) {
        trial.iterate(100ms, [before] { return heardKeys > before; });
    }
}

int ignoreState(pwrctl_state_info*, void*)
{
    return 0;
}

int ignorePowerOff(pwrctl_poweroff_info*, void*)
{
    return 0;
}

void powerOnce(Trial& trial)
{
    trial.call("pwrctl_get_state", pwrctl_get_state);
    trial.call("pwrctl_lock_state", [] { return pwrctl_lock_state(2, 60000); });
    trial.call("pwrctl_unlock_state", [] { return pwrctl_unlock_state(2); });
}

void powerEventsOnce(Trial& trial)
{
    expectSuccess(trial, FindingId::EventsNotSubscribed, "pwrctl_subscribe_state_changed_event",
                  [] { return pwrctl_subscribe_state_changed_event(ignoreState, nullptr); });
    expectSuccess(trial, FindingId::EventsNotSubscribed, "pwrctl_subscribe_poweroff_event",
                  [] { return pwrctl_subscribe_poweroff_event(ignorePowerOff, nullptr); });
    expectSuccess(trial, FindingId::EventsNotUnsubscribed, "pwrctl_unsubscribe_state_changed_event",
                  [] { return pwrctl_unsubscribe_state_changed_event(ignoreState); });
    expectSuccess(trial, FindingId::EventsNotUnsubscribed, "pwrctl_unsubscribe_poweroff_event",
                  [] { return pwrctl_unsubscribe_poweroff_event(ignorePowerOff); });
}

void flagsOnce(Trial& trial)
{
    trial.call("FlagpostEventDone", [] { return FlagpostEventDone("/tmp/.tarnwick_check_again"); });
    trial.call("FlagpostIsDone", [] { return FlagpostIsDone("/tmp/.tarnwick_check_again"); });
    trial.call("FlagpostResetEvent", [] { return FlagpostResetEvent("/tmp/.tarnwick_check_again"); });
}

void watchdogOnce(Trial& trial)
{
    trial.call("hangwatch_register_watchdog_service", [] { return hangwatch_register_watchdog_service(60); });
    for (int notice = 0; notice < 3; ++notice) {
        trial.call("hangwatch_watchdog_notify", hangwatch_watchdog_notify);
    }
    trial.call("hangwatch_unregister_watchdog_service", hangwatch_unregister_watchdog_service);
}

void propertyOnce(Trial& trial)
{
    for (const int key : {128, 0x7ffffff0}) {
        char* value = nullptr;
        if (trial.call("sysprop_get_value_string", [&] { return sysprop_get_value_string(key, &value); }) ==
            0) {
            trial.call("free() of a text of sysprop_get_value_string", [value] { std::free(value); });
        }
    }
}

void packageOnce(Trial& trial)
{
    trial.call("ABM_DownloadAppBinary", [] {
        return appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, "empTarnwickPlatformCheck");
    });
}

void launchOnce(Trial& trial)
{
    applaunch_h request = nullptr;
    trial.call("applaunch_create", [&] { return applaunch_create(&request); });
    if (request == nullptr) {
        return;
    }
    trial.call("applaunch_add_extra_data",
               [=] { return applaunch_add_extra_data(request, "updatetype", "general"); });
    trial.call("applaunch_set_app_id",
               [=] { return applaunch_set_app_id(request, "org.pellor.tarnwick.platform_check.none"); });
    trial.call("applaunch_send_launch_request",
               [=] { return applaunch_send_launch_request(request, nullptr, nullptr); });
    trial.call("applaunch_destroy", [=] { return applaunch_destroy(request); });
}

// Refused ones: there is neither image nor directory.
void mountOnce(Trial& trial)
{
    char command[1024] =
        "-o ro,loop,nodev,nosuid /tmp/.tarnwick_check/missing.img /tmp/.tarnwick_check/missing";
    constexpr const char* kDirectory = "/tmp/.tarnwick_check/missing";
    int result = 0;
    trial.call("PS_Mount", [&] { return PS_Mount(command, sizeof command, 0, &result); });
    char node[1024] = "-m 0660 -Z * /dev/loop0  b 7 0"; // which is there
    result = 0;
    trial.call("PS_Mknod", [&] { return PS_Mknod(node, sizeof node, 0, &result); });
    result = 0;
    trial.call("PS_Umount",
               [&] { return PS_Umount(kDirectory, static_cast<int>(std::strlen(kDirectory)), 0, &result); });
}

void mountedOnce(Trial& trial)
{
    const std::string directory = trial.options().directory;
    if (trial.options().image.empty()) {
        return;
    }
    mkdir(directory.c_str(), 0775);
    char command[1024] = "";
    std::snprintf(command, sizeof command, "-o ro,loop,nodev,nosuid %s %s", trial.options().image.c_str(),
                  directory.c_str());
    int result = 0;
    trial.call("PS_Mount", [&] { return PS_Mount(command, sizeof command, 0, &result); });
    result = 0;
    trial.call("PS_Umount",
               [&] { return PS_Umount(directory.c_str(), static_cast<int>(directory.size()), 0, &result); });
    rmdir(directory.c_str());
}

void platformLogOnce(Trial& trial)
{
    trial.call("__norlog_print", [] {
        return __norlog_print(2, 3, "FWUPDATE", "%s: %d", "the check of the platform logs", 7);
    });
}

void traceLogOnce(Trial& trial)
{
    trial.call("TraceLogger::record", [] {
        TraceLogger::record(3, kRepeatTrials, __func__, __LINE__, "%s: %d", "the check of the platform logs",
                            7);
    });
}

constexpr Repeated kRepeated[] = {
    {"again-settings", 30, 40, settingsOnce},
    {"again-subscription", 30, 40, subscriptionOnce},
    {"again-notification", 30, 40, notificationOnce},
    {"again-power", 30, 40, powerOnce},
    {"again-power-events", 30, 40, powerEventsOnce},
    {"again-flags", 30, 40, flagsOnce},
    {"again-watchdog", 20, 40, watchdogOnce},
    {"again-property", 30, 40, propertyOnce},
    {"again-package", 10, 40, packageOnce},
    {"again-launch", 10, 40, launchOnce},
    {"again-mount", 10, 40, mountOnce},
    {"again-mounted", 4, 40, mountedOnce},
    {"again-platform-log", 400, 24, platformLogOnce},
    {"again-trace-log", 400, 24, traceLogOnce},
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
    const bool isWhole = result == 0 && value != nullptr && std::strlen(value) > 0;
    std::free(result == 0 ? value : nullptr);
    return isWhole;
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

struct Worker {
    const char* what;
    Work work;
    FindingId otherwise = FindingId::NotTogether;
};

constexpr int kRounds = 60; // of each, or so

void runTogether(Trial& trial, const std::vector<Worker>& all, int roundsOfEach = kRounds)
{
    std::vector<Worker> workers; // what is wrong alone is told elsewhere
    std::copy_if(all.begin(), all.end(), std::back_inserter(workers),
                 [](const Worker& worker) { return worker.work(); });
    std::atomic<int> rounds{0};
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    for (const Worker& worker : workers) {
        threads.emplace_back([&trial, &worker, &rounds, &isOver] {
            while (!isOver) {
                if (!worker.work()) {
                    trial.found(worker.otherwise,
                                std::string(worker.what) + ": wrong beside other calls, and right alone");
                    return;
                }
                ++rounds;
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
        {"a key that nobody writes", [&] { return readResting(trial, kWorking); }},
        {"a descriptor of others", keepDescriptor, FindingId::DescriptorClosed},
        {"a descriptor of others", keepDescriptor, FindingId::DescriptorClosed},
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

} // namespace

std::vector<TrialKind> repeatTrials()
{
    std::vector<TrialKind> trials = kindsOf(std::make_index_sequence<std::size(kRepeated)>());
    trials.push_back({"together", tryTogether});
    trials.push_back({"power-together", tryPowerTogether});
    return trials;
}

} // namespace platformcheck
