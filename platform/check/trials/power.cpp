// pwrctl.h.

#include <algorithm>
#include <atomic>
#include <gio/gio.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "platform/check/trials/trial.h"
#include "pwrctl.h"

namespace platformcheck
{

namespace
{

// ---- State and events ----

struct Event {
    bool hasInformation;
    int previous;
    int current;
    void* data;
    pid_t thread;
    bool isInsideCall;
};

std::mutex eventsMutex;
std::vector<Event> stateEvents;
std::vector<Event> powerOffEvents;

void keep(std::vector<Event>& events, const Event& event)
{
    const std::lock_guard<std::mutex> lock(eventsMutex);
    events.push_back(event);
}

std::vector<Event> taken(std::vector<Event>& events)
{
    const std::lock_guard<std::mutex> lock(eventsMutex);
    return std::exchange(events, {});
}

int onState(pwrctl_state_info* info, void* data)
{
    const bool has = info != nullptr;
    keep(stateEvents,
         {has, has ? info->prev_state : 0, has ? info->cur_state : 0, data, gettid(), Trial::isInsideCall()});
    return 0;
}

int onPowerOff(pwrctl_poweroff_info* info, void* data)
{
    keep(powerOffEvents, {info != nullptr, 0, 0, data, gettid(), Trial::isInsideCall()});
    return 0;
}

int otherState(pwrctl_state_info* info, void* data)
{
    return onState(info, data);
}

Trial* trialOfPower = nullptr;
std::atomic<int> stateEndedItself{0};

// As the daemon's does, which ends the service.
int onStateOnce(pwrctl_state_info*, void*)
{
    trialOfPower->call("pwrctl_unsubscribe_state_changed_event",
                       [] { return pwrctl_unsubscribe_state_changed_event(onStateOnce); });
    ++stateEndedItself;
    return 0;
}

int state(Trial& trial)
{
    return trial.call("pwrctl_get_state", pwrctl_get_state);
}

void tryState(Trial& trial)
{
    for (int time = 0; time < 5; ++time) {
        const int now = state(trial);
        if (!trial.require(now >= 0, FindingId::StateUnreadable, "the result is " + std::to_string(now))) {
            return;
        }
        trial.require(now == 0, FindingId::StateNotNormal, "the state is " + std::to_string(now));
        trial.iterate(10ms);
    }
}

int dataOfState = 0;
int dataOfPowerOff = 0;

struct EventCalls {
    const char* subscribe;
    const char* unsubscribe;
    std::function<int()> begin;
    std::function<int()> end;
};

const EventCalls kStateCalls = {"pwrctl_subscribe_state_changed_event",
                                "pwrctl_unsubscribe_state_changed_event",
                                [] { return pwrctl_subscribe_state_changed_event(onState, &dataOfState); },
                                [] { return pwrctl_unsubscribe_state_changed_event(onState); }};
const EventCalls kPowerOffCalls = {
    "pwrctl_subscribe_poweroff_event", "pwrctl_unsubscribe_poweroff_event",
    [] { return pwrctl_subscribe_poweroff_event(onPowerOff, &dataOfPowerOff); },
    [] { return pwrctl_unsubscribe_poweroff_event(onPowerOff); }};

bool begin(Trial& trial, const EventCalls& calls)
{
    const int result = trial.result(calls.subscribe, calls.begin);
    return trial.require(result == 0, FindingId::EventsNotSubscribed,
                         std::string(calls.subscribe) + ": the result is " + std::to_string(result));
}

void end(Trial& trial, const EventCalls& calls)
{
    const int result = trial.result(calls.unsubscribe, calls.end);
    trial.require(result == 0, FindingId::EventsNotUnsubscribed,
                  std::string(calls.unsubscribe) + ": the result is " + std::to_string(result));
}

void expectNoEvents(Trial& trial, const std::string& situation)
{
    const bool isQuiet = taken(stateEvents).empty() && taken(powerOffEvents).empty();
    trial.require(isQuiet, FindingId::EventWithoutCause, situation);
}

// The daemon ends its subscriptions whether or not they were made: that must do no harm.
void tryEvents(Trial& trial)
{
    trial.call(kStateCalls.unsubscribe, kStateCalls.end);
    trial.call(kPowerOffCalls.unsubscribe, kPowerOffCalls.end);
    const int before = state(trial);
    for (int time = 0; time < 2; ++time) {
        const bool isSubscribed = begin(trial, kStateCalls);
        const bool isOffSubscribed = begin(trial, kPowerOffCalls);
        trial.iterate(300ms);
        const int now = state(trial);
        if (now == before) {
            expectNoEvents(trial, "the state is " + std::to_string(now) + " as before");
        }
        if (isSubscribed) {
            end(trial, kStateCalls);
        }
        if (isOffSubscribed) {
            end(trial, kPowerOffCalls);
        }
    }
    std::thread([&] {
        if (begin(trial, kStateCalls)) {
            end(trial, kStateCalls);
        }
    }).join();
    trial.call("pwrctl_unsubscribe_state_changed_event",
               [] { return pwrctl_unsubscribe_state_changed_event(otherState); });
}

// ---- Changes that somebody makes ----

void judgeEvent(Trial& trial, const Event& event, void* data)
{
    trial.require(event.thread == getpid() && !event.isInsideCall, FindingId::Callback,
                  event.isInsideCall ? "inside a call"
                                     : "on thread " + std::to_string(event.thread) +
                                           ", while the main loop runs on " + std::to_string(getpid()));
    trial.require(event.hasInformation, FindingId::EventArguments, "there is no information");
    trial.require(event.data == data, FindingId::EventArguments,
                  "the user data is not that of the subscription");
}

// Follows the state until somebody has changed it `changes` times, and judges each event by it.
void followChanges(Trial& trial, int changes)
{
    int known = state(trial);
    const std::int64_t end =
        common::realNow() + std::chrono::nanoseconds(std::chrono::seconds(trial.options().seconds)).count();
    while (changes > 0 && common::realNow() < end) {
        trial.iterate(50ms);
        const int now = state(trial);
        std::vector<Event> events = taken(stateEvents);
        if (now == known && events.empty()) {
            continue;
        }
        trial.iterate(1s, [] { return false; }); // what tells of it may still be on its way
        for (const Event& event : taken(stateEvents)) {
            events.push_back(event);
        }
        --changes;
        const int after = state(trial);
        if (trial.require(!events.empty(), FindingId::EventMissed,
                          "the state was " + std::to_string(known) + " and is " + std::to_string(after))) {
            const Event& first = events.front();
            const Event& last = events.back();
            trial.require(first.previous == known && last.current == after, FindingId::EventArguments,
                          "from " + std::to_string(first.previous) + " to " + std::to_string(last.current) +
                              " was told, and it was from " + std::to_string(known) + " to " +
                              std::to_string(after));
        }
        for (const Event& event : events) {
            judgeEvent(trial, event, &dataOfState);
        }
        known = after;
    }
    if (changes > 0) {
        trial.note("nobody has changed the power within " + std::to_string(trial.options().seconds) +
                   " s: its events were not judged to their end");
    }
}

void tryChanges(Trial& trial)
{
    if (trial.options().seconds == 0) {
        return;
    }
    if (!begin(trial, kStateCalls)) {
        return;
    }
    followChanges(trial, 2);
    end(trial, kStateCalls);
    trialOfPower = &trial;
    trial.call("pwrctl_subscribe_state_changed_event",
               [] { return pwrctl_subscribe_state_changed_event(onStateOnce, nullptr); });
    const int before = state(trial);
    trial.iterate(std::chrono::seconds(trial.options().seconds), [&] { return state(trial) != before; });
    trial.iterate(500ms);
    trial.require(state(trial) == before || stateEndedItself > 0, FindingId::EventMissed,
                  "by the second of two callbacks, after the end of the first one");
    trial.require(taken(stateEvents).empty(), FindingId::EventAfterEnd, "a change was told after the end");
}

// ---- Locks ----

constexpr int kUiKind = 0;
constexpr int kStandbyKind = 2;
constexpr unsigned int kMinute = 60'000;

int lock(Trial& trial, int kind, unsigned int milliseconds)
{
    return trial.result("pwrctl_lock_state", [=] { return pwrctl_lock_state(kind, milliseconds); });
}

int unlock(Trial& trial, int kind)
{
    return trial.result("pwrctl_unlock_state", [=] { return pwrctl_unlock_state(kind); });
}

std::string kindName(int kind)
{
    return "kind " + std::to_string(kind);
}

bool take(Trial& trial, int kind, unsigned int milliseconds, const char* how = "")
{
    const int result = lock(trial, kind, milliseconds);
    return trial.require(result == 0, FindingId::NotLocked,
                         kindName(kind) + ", " + std::to_string(milliseconds) + " ms" + how +
                             ": the result is " + std::to_string(result));
}

void release(Trial& trial, int kind, FindingId otherwise, const std::string& situation)
{
    const int result = unlock(trial, kind);
    trial.require(result == 0, otherwise,
                  kindName(kind) + situation + ": the result is " + std::to_string(result));
}

// Locks cannot be asked for. Where the release of a lock that is not held fails, it tells by its result what
// was held.
void tryLocks(Trial& trial)
{
    unlock(trial, kStandbyKind); // the daemon's end releases what it may not have
    unlock(trial, kUiKind);
    if (!take(trial, kStandbyKind, kMinute) || !take(trial, kUiKind, kMinute)) {
        return;
    }
    release(trial, kStandbyKind, FindingId::NotReleased, "");
    release(trial, kUiKind, FindingId::KindsMixed, ", after the release of kind 2");
    const bool isTold = unlock(trial, kStandbyKind) != 0;
    take(trial, kStandbyKind, kMinute);
    take(trial, kStandbyKind, 2 * kMinute, ", taken anew");
    release(trial, kStandbyKind, FindingId::NotReleased, ", taken anew");
    constexpr unsigned int kHour = 3'600'000;
    take(trial, kUiKind, kHour);
    release(trial, kUiKind, FindingId::NotReleased, ", for an hour");
    if (!isTold) {
        trial.note(
            "the release of a lock that is not held succeeds here: whether locks end by their time, and kinds are "
            "apart, was not seen");
        return;
    }
    take(trial, kUiKind, kMinute);
    trial.require(unlock(trial, kStandbyKind) != 0, FindingId::KindsMixed,
                  "kind 2 could be released while kind 0 was held");
    release(trial, kUiKind, FindingId::KindsMixed, ", after the release of kind 2");
}

// One below a second, which a platform that counts in seconds does not know.
void tryPartOfSecond(Trial& trial)
{
    constexpr unsigned int kPart = 900;
    const std::int64_t end =
        common::realNow() + std::chrono::nanoseconds(std::chrono::milliseconds(kPart)).count();
    if (!take(trial, kStandbyKind, kPart)) {
        return;
    }
    trial.iterate(100ms);
    const int result = unlock(trial, kStandbyKind);
    if (common::realNow() < end) { // else the machine was too busy to tell
        trial.require(result == 0, FindingId::NotReleased,
                      kindName(kStandbyKind) + ", for 900 ms, before its time is up: the result is " +
                          std::to_string(result));
    }
}

void tryLockTimes(Trial& trial)
{
    constexpr unsigned int kShort = 300;
    constexpr unsigned int kWraps = 0x10000 + kShort; // in 16 bits it would be the short one
    unlock(trial, kStandbyKind);
    if (unlock(trial, kStandbyKind) == 0) {
        return; // it was noted that nothing is seen
    }
    tryPartOfSecond(trial);
    if (!take(trial, kStandbyKind, kShort) || !take(trial, kUiKind, kWraps)) {
        return;
    }
    trial.iterate(1500ms);
    trial.require(unlock(trial, kStandbyKind) != 0, FindingId::NotReleasedByTime,
                  "a lock of 0.3 s was still held after 1.5 s");
    release(trial, kUiKind, FindingId::NotReleased,
            ", for " + std::to_string(kWraps) + " ms, after 1500 of them");
    take(trial, kStandbyKind, kShort);
    take(trial, kStandbyKind, kMinute, ", taken anew");
    trial.iterate(800ms);
    release(trial, kStandbyKind, FindingId::NotReleased, ", taken anew for 60000 ms, after 800 of them");
}

void tryReboot(Trial& trial)
{
    constexpr unsigned int kReason = 0x2000000c;
    const int result = trial.result("pwrctl_request_reboot", [] { return pwrctl_request_reboot(kReason); });
    if (trial.require(result == 0, FindingId::RebootRefused, "the result is " + std::to_string(result))) {
        trial.iterate(60s);
        trial.found(FindingId::RebootNotMade, "this check still runs a minute later");
    }
}

} // namespace

std::vector<TrialKind> powerTrials()
{
    return {{"power-state", tryState}, {"power-events", tryEvents},        {"power-changes", tryChanges},
            {"power-locks", tryLocks}, {"power-lock-times", tryLockTimes}, {"reboot", tryReboot}};
}

} // namespace platformcheck
