// The set's client interfaces as a test needs them: every call of platform/include, kept in the order it was
// made and answered as the test told it to.
//
// Left alone it is a healthy set: every call succeeds, the set is switched on, settings and flags hold what
// was written, and the mount service "mounts" images (see MountService below). Change callbacks come only
// when the test fires them, on the test's thread.
//
// Every call and every member function may be used from any thread; what is returned is a copy.
#ifndef PLATFORM_FAKE_FAKE_PLATFORM_H
#define PLATFORM_FAKE_FAKE_PLATFORM_H

#include <cstdint>
#include <deque>
#include <functional>
#include <iosfwd>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "applaunch.h"
#include "pralis.h"
#include "pwrctl.h"

// ---- Log ----

// Which of the two logs a message reached. A message to both is written to the platform log first and
// directly after it, by the same thread and word for word, to the trace recorder; then it counts as one line.
enum class LogSink { kBoth, kPlatformOnly, kTraceOnly };

struct LogLine {
    LogSink sink;
    int priority; // 3 debug, 4 info, 5 warning, 6 error
    std::string text;
};
bool operator==(const LogLine& left, const LogLine& right);
std::ostream& operator<<(std::ostream& out, const LogLine& line);

// A record as one of the logs received it. Of the platform log the text stands after the prefix "> ".
struct LogRecord {
    LogSink sink; // never kBoth
    int logId;    // 0 in the trace recorder, which has none
    int priority;
    std::string tag; // empty in the trace recorder, as is the prefix
    std::string prefix;
    std::string file;
    std::string function;
    int line;
    std::string text;
    std::thread::id thread;
};

// ---- Requests ----

struct PowerLock {
    int kind;
    unsigned int durationMs;
};
bool operator==(const PowerLock& left, const PowerLock& right);
std::ostream& operator<<(std::ostream& out, const PowerLock& lock);

// One launch request as it was sent.
struct LaunchAttempt {
    std::string appId;
    std::vector<std::pair<std::string, std::string>> extras; // in the order they were added
    bool wantsReply;
    int result;
};

// ---- Mounts ----

// What the mount service answers: success only when both are 0.
struct MountAnswer {
    int retVal;
    int result;
};

enum class MountOperation { kMount, kMknod, kUmount };

struct MountRequest {
    MountOperation operation;
    std::string text;   // the command or the directory
    std::string buffer; // all `length` bytes of it; of an unmount the text alone
    int length;
    int flags;
    int resultBefore; // what the caller had put where the answer goes
};

// A change of a settings key, as a callback receives it.
struct keynode {
    std::string key;
    int value;
};

class FakePlatform
{
public:
    // Forgets everything, mounts included: a healthy set that nobody has spoken to.
    void reset();

    // ---- Calls in general ----

    // Every call but the two logs', in order, as it would be written: `pwrctl_lock_state(2, 5000)`.
    std::vector<std::string> calls() const;
    std::vector<std::string> callsSince(size_t first) const; // without the first ones
    int countCalls(const std::string& function) const;
    // The function returns `result` from now on and has no other effect. For a settings key alone, append it:
    // "pralis_get_int:KEY". ABM_DownloadAppBinary refuses with 0 and takes with anything else.
    void answer(const std::string& function, int result);
    // The next calls of the function return these, in order; afterwards it behaves again. A result of 0 (of
    // ABM_DownloadAppBinary: not 0) has the call's full effect.
    void answerInTurn(const std::string& function, std::vector<int> results);
    // Runs `action` in every call of the function before it has any effect, on the caller's thread and with
    // nothing locked: to look around at that moment, to wait, or to throw.
    void onCall(const std::string& function, std::function<void()> action);

    // ---- Log ----

    std::vector<LogLine> log() const; // what both logs received, merged
    std::vector<LogRecord> logRecords() const;
    void clearLog();
    // Runs `action` after each message has been kept, with its text; once per log.
    void onLog(std::function<void(const std::string& text)> action);

    // ---- Settings ----

    void setSetting(const std::string& key, int value); // no callback
    std::optional<int> setting(const std::string& key) const;
    std::vector<std::pair<std::string, int>> settingWrites() const; // those that succeeded
    // Stores the value and calls every subscribed callback with a node that holds it. How many were called.
    int changeSetting(const std::string& key, int value);
    // Calls the callbacks of the key with no node at all.
    int fireNullNode(const std::string& key);
    bool isSubscribed(const std::string& key) const;

    // ---- Power ----

    void setPowerState(int state);
    // Tells every subscriber; the results of their callbacks.
    std::vector<int> changePowerState(int previous, int current);
    std::vector<int> powerOff(int reason);
    bool isSubscribedToPowerState() const;
    bool isSubscribedToPowerOff() const;
    std::vector<PowerLock> powerLocks() const; // every lock that was ever taken
    std::vector<PowerLock> heldPowerLocks() const;
    std::vector<unsigned int> reboots() const; // reasons of the reboots that were asked for

    // ---- Launches ----

    std::vector<LaunchAttempt> launches() const; // failed ones too
    int openLaunchRequests() const;              // made and not destroyed

    // ---- Packages, system information, flags, watchdog ----

    std::vector<std::string> packageRequests() const; // identifiers, refused ones too
    // Calls the completion callback of each request that has one; how many those were.
    int completePackageRequests(int status);
    void setSystemText(int key, const std::string& value); // without a text the query fails
    bool isFlagRaised(const std::string& flag) const;
    void setFlag(const std::string& flag, bool raised);
    std::optional<int> watchdogPeriod() const; // none when not registered

    // ---- Mount service ----
    //
    // By default it behaves: an image file IMG is taken to hold the tree of the directory "IMG.tree", which
    // is copied into the mount point and taken away by the unmount. An image without a tree, a missing mount
    // point and an unmount where nothing is mounted are refused as the kernel would (-1, errno). Mounts on
    // top of each other hide what is below.

    std::vector<MountRequest> mountRequests() const;
    std::vector<MountRequest> mountRequests(MountOperation operation) const;
    // The next requests of that kind are answered with these, in order, and have no effect.
    void answerMount(MountOperation operation, std::vector<MountAnswer> answers);
    // Every further request of that kind, once the ones above are used up.
    void alwaysAnswerMount(MountOperation operation, MountAnswer answer);
    std::vector<std::string> mountedDirectories() const; // in order of mounting

    // ---- For the calls, one file for each service ----

    // Keeps the call and lets the test act on it. The scripted result, if there is one.
    std::optional<int> enter(const std::string& function, const std::string& arguments,
                             const std::string& key = "");
    void keepLog(LogRecord record);
    int subscribe(const std::string& key, pralis_key_changed_cb callback, void* userData);
    int ignore(const std::string& key, pralis_key_changed_cb callback);
    int writeSetting(const std::string& key, int value);
    int powerState() const;
    int subscribePowerState(pwrctl_state_cb callback, void* userData);
    int unsubscribePowerState(pwrctl_state_cb callback);
    int subscribePowerOff(pwrctl_poweroff_cb callback, void* userData);
    int unsubscribePowerOff(pwrctl_poweroff_cb callback);
    int lockPower(PowerLock lock);
    int unlockPower(int kind);
    int requestReboot(unsigned int reason);
    void countLaunchRequest(int change);
    void keepLaunch(LaunchAttempt attempt);
    void keepPackageRequest(std::string id, std::function<void(int status)> complete);
    std::optional<std::string> systemText(int key) const;
    int setWatchdog(std::optional<int> period);
    // Serves a request and writes the service's result.
    int serveMount(MountRequest request, int* result);

private:
    struct Answers {
        std::deque<int> inTurn;
        std::optional<int> always;
    };
    struct MountAnswers {
        std::deque<MountAnswer> inTurn;
        std::optional<MountAnswer> always;
    };
    template <typename Callback>
    struct Subscriber {
        Callback callback;
        void* userData;
    };
    struct Mounted {
        std::string image;
        std::string directory;
    };
    struct State {
        std::vector<std::string> calls;
        std::map<std::string, Answers> answers;
        std::map<std::string, std::function<void()>> actions;
        std::vector<LogRecord> log;
        std::function<void(const std::string&)> logAction;
        std::map<std::string, int> settings;
        std::vector<std::pair<std::string, int>> settingWrites;
        std::map<std::string, std::vector<Subscriber<pralis_key_changed_cb>>> settingSubscribers;
        int powerState = 0;
        std::vector<Subscriber<pwrctl_state_cb>> powerStateSubscribers;
        std::vector<Subscriber<pwrctl_poweroff_cb>> powerOffSubscribers;
        std::vector<PowerLock> powerLocks;
        std::vector<PowerLock> heldPowerLocks;
        std::vector<unsigned int> reboots;
        std::vector<LaunchAttempt> launches;
        int openLaunchRequests = 0;
        std::vector<std::string> packageRequests;
        std::vector<std::function<void(int)>> packageCompletions;
        std::map<int, std::string> systemTexts;
        std::set<std::string> flags;
        std::optional<int> watchdogPeriod;
        std::vector<MountRequest> mountRequests;
        std::map<MountOperation, MountAnswers> mountAnswers;
        std::vector<Mounted> mounted;
    };

    int callSettingSubscribers(const std::string& key, keynode* node);
    std::optional<MountAnswer> scriptedMountAnswer(MountOperation operation);
    MountAnswer mountImage(const std::string& command);
    MountAnswer unmountDirectory(const std::string& directory);

    mutable std::mutex mutex;
    State state;
};

// The one of the process, which the calls of platform/include reach.
FakePlatform& fakePlatform();

#endif
