// One trial: calls of the platform as the daemon makes them, in a process of their own, judged.
#ifndef PLATFORM_CHECK_TRIALS_TRIAL_H
#define PLATFORM_CHECK_TRIALS_TRIAL_H

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "common/process/guarded-buffer.h"
#include "common/process/process-state.h"
#include "platform/check/findings.h"
#include "platform/check/trials/trial-page.h"

namespace platformcheck
{

using namespace std::chrono_literals;

// The keys that the daemon writes.
inline constexpr const char* kStatus = "memory/ep_firmware_update_app/fw_update_status";
inline constexpr const char* kProgress = "memory/ep_firmware_update_app/fw_update_progress";
inline constexpr const char* kWorking = "memory/enterprise/swupgrade/working_status";

// What the trials are told on their command line.
struct TrialOptions {
    std::filesystem::path page;    // the file of its TrialPage
    std::filesystem::path work;    // a directory of this check
    std::filesystem::path image;   // to be mounted; may be empty
    std::filesystem::path content; // what a file in it holds; empty when that is not known
    std::filesystem::path other;   // a second image, to be mounted beside it; may be empty
    std::filesystem::path otherContent;
    std::filesystem::path directory; // where it is mounted
    std::string package;             // to be asked for; empty: one that no store has
    std::string application;         // to be launched for a reply; empty: one that is not there
    unsigned int token = 0;          // of this check: two trials of one check have the same
    unsigned int seconds = 0;        // to wait for a person
    unsigned int mask = 022;         // of file modes, at the start
    unsigned int ignored = 0;        // signals, by who has started it
    bool isLogTextJudged = true;
    bool isAgain = false; // the first time was doubtful: its traces are there
};

class Trial
{
public:
    Trial(TrialPage& page, TrialOptions options) : page_(page), options_(std::move(options)) {}

    const TrialOptions& options() const { return options_; }

    // A call, on any thread: marked, so that a crash or a hang is told by its name; its time is taken, and an
    // exception becomes a finding, with the call's result a failure.
    template <typename Function>
    auto call(const char* name, Function function) -> std::invoke_result_t<Function>;

    // The same for calls that give 0 or a negative result; any other is a finding.
    template <typename Function>
    int result(const char* name, Function function)
    {
        return judged(name, call(name, function));
    }

    // Of both, `name` is the function's, and what kind of call it is behind a comma where only that may be
    // slow.

    // Each on any thread. `require` gives what it is given.
    void found(FindingId id, const std::string& seen);
    bool require(bool isRight, FindingId id, const std::string& seen);
    void note(const std::string& text);
    void tellLibrary(const std::string& path);
    void refuse(const std::string& reason);
    // What is under way between two calls, for reports of an end that comes then.
    void tellSituation(const char* words);
    bool hasFound() const { return hasFound_; }

    // Runs the default main context until `isOver`, or until the time is up. True when it is over.
    bool iterate(std::chrono::milliseconds most, const std::function<bool()>& isOver = [] { return false; });

    // Another trial, in a process beside this one, whose findings are this one's.
    enum class Loop { kRuns, kStands };            // the default main context meanwhile
    enum class Environment { kService, kSession }; // of that process
    void runBeside(const char* name, Loop loop = Loop::kRuns,
                   Environment environment = Environment::kService);

    // Work on a thread of its own, to its end; what belongs to a thread must be as before. A main context of
    // the thread's own is run by nobody.
    enum class Context { kNone, kOwn };
    void onThread(const std::function<void()>& work, Context context = Context::kNone);

    // What the calls' times say.
    void judgeTimes();

    // Of all threads the one that has been under way for longest; "" when there is none.
    std::string oldestCallNow() const { return oldestCall(page_).name; }

    static bool isInsideCall();        // of this thread
    static const char* callUnderWay(); // of this thread, the innermost; null: none

private:
    class Mark;
    struct Times {
        std::vector<std::chrono::nanoseconds> first; // of so many calls
        std::vector<std::chrono::nanoseconds> late;  // of so many that took longer than their limit
        std::size_t calls = 0;
    };
    int judged(const char* name, int result);
    void keepTime(const char* name, std::chrono::nanoseconds taken, std::chrono::nanoseconds delay);
    void endWhenHopeless(const char* name);
    void judgeTimesOf(const std::string& name, Times& times, std::chrono::nanoseconds noise);
    void judgeThread(const sigset_t& before);

    TrialPage& page_;
    TrialOptions options_;
    std::mutex mutex_;
    std::map<std::string, Times> times_;
    std::chrono::nanoseconds longestDelay_{0}; // that the machine has caused
    std::chrono::nanoseconds tooMuch_{0};      // that calls have taken beyond their limits
    std::map<FindingId, unsigned int> told_;
    std::atomic<bool> hasFound_{false};
};

// Marks a call for as long as it lives.
class Trial::Mark
{
public:
    Mark(Trial& trial, const char* name);
    ~Mark();
    Mark(const Mark&) = delete;
    Mark& operator=(const Mark&) = delete;

private:
    Trial& trial_;
    const char* name_;
    TrialPage::Call* slot_;
    const char* around_; // the call in whose callback this one is made; null: none
    std::int64_t begin_;
    std::chrono::nanoseconds delayBefore_;
};

template <typename Function>
auto Trial::call(const char* name, Function function) -> std::invoke_result_t<Function>
{
    using Result = std::invoke_result_t<Function>;
    try {
        const Mark mark(*this, name);
        return function();
    } catch (const std::exception& error) {
        found(FindingId::Exception, std::string(name) + ": " + error.what());
    } catch (...) {
        found(FindingId::Exception, std::string(name) + ": something that is no std::exception");
    }
    if constexpr (!std::is_void_v<Result>) {
        return std::is_same_v<Result, bool> ? Result{} : static_cast<Result>(-1);
    }
}

// Work of another thread, while this one stays where it is: in a callback.
class Meanwhile
{
public:
    explicit Meanwhile(std::function<void()> work);
    ~Meanwhile(); // when the work has come to its end
    Meanwhile(const Meanwhile&) = delete;
    Meanwhile& operator=(const Meanwhile&) = delete;

    // So long it may take, on a machine as busy as this one: the work is done once, on a thread of its own.
    static std::chrono::nanoseconds timeFor(Trial& trial, const std::function<void()>& work);

    // Waits without the main loop. True when it is over.
    bool isOverWithin(std::chrono::nanoseconds most) const;

private:
    std::atomic<bool> isOver_{false};
    std::thread thread_;
};

// Where a call writes its answer: memory of that size and no more, which is gone after the call.
template <typename T>
class Place
{
public:
    // NOLINTNEXTLINE(bugprone-sizeof-expression): a place for a pointer, too
    explicit Place(const char* name, T value = T{}) : memory_(name, sizeof(T)) { *get() = value; }
    T* get() { return memory_.as<T>(); }
    T operator*() { return *get(); }

private:
    common::GuardedBuffer memory_;
};

// By the name that trial-list.h has.
struct TrialKind {
    const char* name;
    void (*run)(Trial&);
};

std::vector<TrialKind> processTrials(); // load, bus
std::vector<TrialKind> settingsTrials();
std::vector<TrialKind> listenerTrials();
std::vector<TrialKind> powerTrials();
std::vector<TrialKind> serviceTrials();
std::vector<TrialKind> mountTrials();
std::vector<TrialKind> logTrials();
std::vector<TrialKind> repeatTrials();
std::vector<TrialKind> kindTrials();

} // namespace platformcheck

#endif
