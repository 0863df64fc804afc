// pwrctl.h.

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <gio/gio.h>
#include <json/json.h>
#include <optional>
#include <sstream>
#include <unistd.h>
#include <utility>

#include "common/glib-pointers.h"
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

int otherPowerOff(pwrctl_poweroff_info* info, void* data)
{
    return onPowerOff(info, data);
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

std::atomic<int> toldBefore{0};
std::optional<Meanwhile> besideState;
bool isDoneBeside = false;
std::string callBeside; // that is still under way then
std::chrono::nanoseconds mostMeanwhile{0};

void callMeanwhile()
{
    trialOfPower->call("pwrctl_get_state", pwrctl_get_state);
    trialOfPower->call("pwrctl_lock_state", [] { return pwrctl_lock_state(2, 60'000); });
    trialOfPower->call("pwrctl_unlock_state", [] { return pwrctl_unlock_state(2); });
}

// Takes its time at the first change, while another thread calls.
int onStateBefore(pwrctl_state_info*, void*)
{
    ++toldBefore;
    if (!besideState) {
        besideState.emplace(callMeanwhile);
        isDoneBeside = besideState->isOverWithin(mostMeanwhile);
        callBeside = trialOfPower->oldestCallNow();
    }
    return 0;
}

// Each ends the other: whichever is told first, the other one is not any more.
std::atomic<bool> isOneEnded{false};
std::atomic<int> toldOfBoth{0};

int onStateOfTwo(pwrctl_state_info*, void*);

int onStateOfOne(pwrctl_state_info*, void*)
{
    ++toldOfBoth;
    if (!isOneEnded.exchange(true)) {
        trialOfPower->call("pwrctl_unsubscribe_state_changed_event",
                           [] { return pwrctl_unsubscribe_state_changed_event(onStateOfTwo); });
    }
    return 0;
}

int onStateOfTwo(pwrctl_state_info*, void*)
{
    ++toldOfBoth;
    if (!isOneEnded.exchange(true)) {
        trialOfPower->call("pwrctl_unsubscribe_state_changed_event",
                           [] { return pwrctl_unsubscribe_state_changed_event(onStateOfOne); });
    }
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
    trial.onThread([&] {
        const int now = state(trial);
        trial.require(now == 0, FindingId::StateNotNormal,
                      "the state is " + std::to_string(now) + " on another thread");
    });
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

const EventCalls kOtherStateCalls = {
    kStateCalls.subscribe, kStateCalls.unsubscribe,
    [] { return pwrctl_subscribe_state_changed_event(otherState, &dataOfPowerOff); },
    [] { return pwrctl_unsubscribe_state_changed_event(otherState); }};
const EventCalls kOtherPowerOffCalls = {
    kPowerOffCalls.subscribe, kPowerOffCalls.unsubscribe,
    [] { return pwrctl_subscribe_poweroff_event(otherPowerOff, &dataOfState); },
    [] { return pwrctl_unsubscribe_poweroff_event(otherPowerOff); }};

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

// None of these calls changes the state.
void makePowerCalls(Trial& trial)
{
    constexpr unsigned int kMinute = 60'000;
    trial.result("pwrctl_lock_state", [] { return pwrctl_lock_state(2, kMinute); });
    state(trial);
    trial.result("pwrctl_unlock_state", [] { return pwrctl_unlock_state(2); });
}

// Two callbacks of one kind are two subscriptions, and the end of one that is none ends no other.
void tryTwoCallbacks(Trial& trial, const EventCalls& one, const EventCalls& other)
{
    if (!begin(trial, one)) {
        return;
    }
    trial.call(other.unsubscribe, other.end);
    if (begin(trial, other)) {
        end(trial, one);
        end(trial, other);
        return;
    }
    end(trial, one);
}

// The daemon ends its subscriptions whether or not they were made: that must do no harm.
void tryEvents(Trial& trial)
{
    trial.call(kStateCalls.unsubscribe, kStateCalls.end);
    trial.call(kPowerOffCalls.unsubscribe, kPowerOffCalls.end);
    const int before = state(trial);
    const EventCalls* order[] = {&kStateCalls, &kPowerOffCalls};
    for (int time = 0; time < 2; ++time) {
        std::vector<const EventCalls*> subscribed;
        for (const EventCalls* const calls : order) {
            if (begin(trial, *calls)) {
                subscribed.push_back(calls);
            }
        }
        makePowerCalls(trial);
        trial.iterate(time == 0 ? 1200ms : 300ms); // a state may be told some time after the subscription
        for (const EventCalls* const calls : subscribed) {
            end(trial, *calls);
        }
        trial.iterate(50ms);
        const int now = state(trial);
        if (now == before) {
            expectNoEvents(trial, "the state is " + std::to_string(now) + " as before");
        }
        std::swap(order[0], order[1]);
    }
    tryTwoCallbacks(trial, kStateCalls, kOtherStateCalls);
    tryTwoCallbacks(trial, kOtherPowerOffCalls, kPowerOffCalls);
    trial.onThread([&] {
        for (const EventCalls* const calls : order) {
            if (begin(trial, *calls)) {
                end(trial, *calls);
            }
        }
    });
    bool isBegun = false; // by a thread that has ended
    trial.onThread([&] { isBegun = begin(trial, kPowerOffCalls); });
    if (isBegun) {
        end(trial, kPowerOffCalls);
    }
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

// Follows the state until somebody has changed it `changes` times, and judges each event by it. The
// number of changes.
int followChanges(Trial& trial, int changes)
{
    int known = state(trial);
    const std::int64_t end =
        common::realNow() + std::chrono::nanoseconds(std::chrono::seconds(trial.options().seconds)).count();
    int made = 0;
    while (made < changes && common::realNow() < end) {
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
        ++made;
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
        int told = known;
        for (const Event& event : events) {
            judgeEvent(trial, event, &dataOfState);
            trial.require(event.previous == told, FindingId::EventArguments,
                          "from " + std::to_string(event.previous) + " to " + std::to_string(event.current) +
                              " was told when the state was " + std::to_string(told));
            told = event.current;
        }
        known = after;
    }
    return made;
}

// One hears of both changes, one ends itself at the first, one is ended before the second.
void tryChanges(Trial& trial)
{
    if (trial.options().seconds == 0) {
        return;
    }
    if (!begin(trial, kStateCalls)) {
        return;
    }
    trialOfPower = &trial;
    mostMeanwhile = Meanwhile::timeFor(trial, callMeanwhile);
    const char* const name = kStateCalls.subscribe;
    trial.onThread([&] { // which has no main loop
        trial.call(name, [] { return pwrctl_subscribe_state_changed_event(onStateOnce, nullptr); });
    });
    for (const pwrctl_state_cb callback : {onStateBefore, onStateOfOne, onStateOfTwo}) {
        trial.call(name, [=] { return pwrctl_subscribe_state_changed_event(callback, nullptr); });
    }
    int changes = followChanges(trial, 1);
    trial.require(toldOfBoth <= 1, FindingId::EventAfterEnd, "another callback had ended the subscription");
    trial.require(!besideState || isDoneBeside, FindingId::Slow,
                  callBeside +
                      " of another thread had not returned while a callback was at work, for seconds");
    besideState.reset();
    for (const pwrctl_state_cb callback : {onStateOfOne, onStateOfTwo}) {
        trial.call(kStateCalls.unsubscribe, [=] { return pwrctl_unsubscribe_state_changed_event(callback); });
    }
    trial.require(changes == 0 || stateEndedItself > 0, FindingId::EventMissed,
                  "by the second of two callbacks");
    trial.call(kStateCalls.unsubscribe, [] { return pwrctl_unsubscribe_state_changed_event(onStateBefore); });
    const int before = toldBefore;
    changes += changes == 0 ? 0 : followChanges(trial, 1);
    end(trial, kStateCalls);
    trial.require(toldBefore == before, FindingId::EventAfterEnd, "a change was told after the end");
    trial.require(stateEndedItself <= 1, FindingId::EventAfterEnd,
                  "to a callback that had ended its own subscription at the change before");
    if (changes < 2) {
        trial.note("nobody has changed the power within " + std::to_string(trial.options().seconds) +
                   " s: its events were not judged to their end");
    }
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

// What has nothing to do with a lock does not end it.
void tryLockBesideCalls(Trial& trial)
{
    take(trial, kStandbyKind, kMinute);
    take(trial, kUiKind, kMinute);
    for (const EventCalls* const calls : {&kStateCalls, &kPowerOffCalls}) {
        if (begin(trial, *calls)) {
            end(trial, *calls);
        }
    }
    const auto judgeState = [&] {
        trial.require(state(trial) == 0, FindingId::StateNotNormal, "while locks of both kinds are held");
    };
    judgeState();
    trial.onThread(judgeState);
    trial.iterate(50ms);
    for (const int kind : {kStandbyKind, kUiKind}) {
        release(trial, kind, FindingId::NotReleased, ", after subscriptions to events, and their ends");
    }
}

// Locks cannot be asked for. Where the release of a lock that is not held fails, it tells by its result what
// was held.
void tryLocks(Trial& trial)
{
    unlock(trial, kStandbyKind); // the daemon's end releases what it may not have
    unlock(trial, kUiKind);
    for (const int odd : {-1, 1, 7, 1 << 28, INT_MAX, INT_MIN}) { // whatever they answer
        lock(trial, odd, 1000);
        unlock(trial, odd);
    }
    if (!take(trial, kStandbyKind, kMinute) || !take(trial, kUiKind, kMinute)) {
        return;
    }
    release(trial, kStandbyKind, FindingId::NotReleased, "");
    release(trial, kUiKind, FindingId::KindsMixed, ", after the release of kind 2");
    const bool isTold = unlock(trial, kStandbyKind) != 0;
    take(trial, kStandbyKind, kMinute);
    take(trial, kStandbyKind, 2 * kMinute, ", taken anew");
    trial.require(state(trial) == 0, FindingId::StateNotNormal, "while a lock is held");
    release(trial, kStandbyKind, FindingId::NotReleased, ", taken anew");
    trial.require(!isTold || unlock(trial, kStandbyKind) != 0, FindingId::NotReleasedByTime,
                  "taken anew, and released: it could be released once more");
    for (const unsigned int duration : {0U, 1U}) { // which are over at once
        take(trial, kUiKind, duration);
        unlock(trial, kUiKind);
    }
    for (const unsigned int duration : {3'600'000U, 86'400'000U, 3'000'000'000U}) { // an hour, a day, 31 bits
        take(trial, kUiKind, duration);
        release(trial, kUiKind, FindingId::NotReleased, ", for " + std::to_string(duration) + " ms");
    }
    trial.onThread([&] { take(trial, kUiKind, kMinute, ", on a thread that ends"); });
    release(trial, kUiKind, FindingId::NotReleased, ", taken on a thread that has ended");
    for (const int kind : {kStandbyKind, kUiKind}) {
        take(trial, kind, kMinute);
        trial.onThread([&] { release(trial, kind, FindingId::NotReleased, ", on another thread"); });
    }
    tryLockBesideCalls(trial);
    if (!isTold) {
        trial.note(
            "the release of a lock that is not held succeeds here: whether locks end by their time, and kinds are "
            "apart, was not seen");
        return;
    }
    trial.require(unlock(trial, kUiKind) != 0, FindingId::NotReleasedByTime,
                  "released on another thread: it could be released once more");
    for (const auto& [held, other] : {std::pair{kUiKind, kStandbyKind}, std::pair{kStandbyKind, kUiKind}}) {
        take(trial, held, kMinute);
        trial.require(unlock(trial, other) != 0, FindingId::KindsMixed,
                      kindName(other) + " could be released while " + kindName(held) + " was held");
        release(trial, held, FindingId::KindsMixed, ", after the release of " + kindName(other));
    }
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

constexpr unsigned int kShort = 300;

// One kind's time is up, and the other's is not.
void tryOneTimeUp(Trial& trial, int early, int late, unsigned int lateDuration)
{
    if (!take(trial, early, kShort) || !take(trial, late, lateDuration)) {
        return;
    }
    trial.iterate(1300ms);
    trial.require(unlock(trial, early) != 0, FindingId::NotReleasedByTime,
                  kindName(early) + ": a lock of 0.3 s was still held after 1.3 s");
    release(trial, late, FindingId::NotReleased,
            ", for " + std::to_string(lateDuration) + " ms, after 1300 of them");
}

// Taken anew for longer, and the other kind for shorter: the new time counts.
void tryTakenAnew(Trial& trial)
{
    take(trial, kStandbyKind, kShort);
    take(trial, kStandbyKind, kMinute, ", taken anew");
    take(trial, kUiKind, kMinute);
    take(trial, kUiKind, kShort, ", taken anew");
    trial.iterate(1300ms);
    release(trial, kStandbyKind, FindingId::NotReleased, ", taken anew for 60000 ms, after 1300 of them");
    trial.require(unlock(trial, kUiKind) != 0, FindingId::NotReleasedByTime,
                  kindName(kUiKind) + ": taken for 60 s and anew for 0.3 s, it was still held after 1.3 s");
}

// The time of a lock that was released, or was up, is none of the next one's.
void tryEarlierTimes(Trial& trial)
{
    constexpr unsigned int kAtOnce = 0;
    take(trial, kStandbyKind, kShort);
    unlock(trial, kStandbyKind);
    take(trial, kStandbyKind, kMinute, ", after the release of one of 300 ms");
    take(trial, kUiKind, kAtOnce);
    trial.iterate(500ms);
    trial.require(unlock(trial, kUiKind) != 0, FindingId::NotReleasedByTime,
                  kindName(kUiKind) + ": a lock of 0 ms was still held after 0.5 s");
    take(trial, kUiKind, kMinute, ", after one of 0 ms whose time was up");
    trial.iterate(700ms);
    release(trial, kStandbyKind, FindingId::NotReleased,
            ", for 60000 ms, after 1200 of them; one of 300 ms was released before it was taken");
    release(trial, kUiKind, FindingId::NotReleased,
            ", for 60000 ms, after 700 of them; the time of another was up before it was taken");
}

// Such as a platform that counts in microseconds, or with a sign, takes for short ones.
void tryLongTimes(Trial& trial)
{
    constexpr unsigned int kSignOfMilliseconds = 0x80000000;
    constexpr unsigned int kSignOfMicroseconds = 0x80000000 / 1000 + 1;
    constexpr unsigned int kWrapOfMicroseconds = 0xFFFFFFFF / 1000 + 1;
    constexpr unsigned int kMost = 0xFFFFFFFF;
    for (const auto& [standby, ui] :
         {std::pair{kSignOfMilliseconds, kMost}, std::pair{kSignOfMicroseconds, kWrapOfMicroseconds}}) {
        if (!take(trial, kStandbyKind, standby) || !take(trial, kUiKind, ui)) {
            return;
        }
        trial.iterate(400ms);
        for (const auto& [kind, duration] : {std::pair{kStandbyKind, standby}, std::pair{kUiKind, ui}}) {
            release(trial, kind, FindingId::NotReleased,
                    ", for " + std::to_string(duration) + " ms, after 400 of them");
        }
    }
}

void tryLockTimes(Trial& trial)
{
    constexpr unsigned int kWraps = 0x10000 + kShort; // in 16 bits it would be the short one
    unlock(trial, kStandbyKind);
    if (unlock(trial, kStandbyKind) == 0) {
        return; // it was noted that nothing is seen
    }
    tryPartOfSecond(trial);
    tryLongTimes(trial);
    tryOneTimeUp(trial, kStandbyKind, kUiKind, kWraps);
    tryTakenAnew(trial); // by which the other kind's time is up
    tryEarlierTimes(trial);
}

// ---- Reboot ----

constexpr unsigned int kReason = 0x2000000c;

// As the daemon does, which ends right after it: nothing of this process is left to make it.
void requestReboot(Trial& trial)
{
    const int result = trial.result("pwrctl_request_reboot", [] { return pwrctl_request_reboot(kReason); });
    trial.require(result == 0, FindingId::RebootRefused, "the result is " + std::to_string(result));
    std::quick_exit(0);
}

// The virtual set of a command, which has to outlive it, writes reboots down and makes none.
bool isOnlyRecorded()
{
    const common::GlibPointer<GDBusConnection> bus(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    const common::GlibPointer<GVariant> reply(
        bus == nullptr ? nullptr
                       : g_dbus_connection_call_sync(bus.get(), "org.pellor.platform", "/org/pellor/platform",
                                                     "org.pellor.platform.Control", "Snapshot", nullptr,
                                                     G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                                                     2000, nullptr, nullptr));
    if (reply == nullptr) {
        return false; // this is no virtual set
    }
    const gchar* text = nullptr;
    g_variant_get(reply.get(), "(&s)", &text);
    Json::Value snapshot;
    std::istringstream(text) >> snapshot;
    const Json::Value& endings = snapshot["reboots"];
    const Json::Value last =
        endings.isArray() && !endings.empty() ? endings[endings.size() - 1] : Json::Value();
    return last["reason"].asInt64() == kReason && last["outcome"] == "recorded only";
}

void tryReboot(Trial& trial)
{
    trial.runBeside("reboot-request");
    if (trial.hasFound()) {
        return;
    }
    for (int second = 0; second < 60; ++second) {
        trial.iterate(1s);
        if (isOnlyRecorded()) {
            trial.note("the reboot was asked for; this virtual set, which is a command's, records it only");
            return;
        }
    }
    trial.found(FindingId::RebootNotMade,
                "a process has asked for it and ended at once, and this check still runs a minute later");
}

} // namespace

std::vector<TrialKind> powerTrials()
{
    return {{"power-state", tryState},          {"power-events", tryEvents},
            {"power-changes", tryChanges},      {"power-locks", tryLocks},
            {"power-lock-times", tryLockTimes}, {"reboot", tryReboot},
            {"reboot-request", requestReboot}};
}

} // namespace platformcheck
