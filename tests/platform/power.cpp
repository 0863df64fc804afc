// pwrctl.h
#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "appbinary_manager.h"
#include "pwrctl.h"
#include "tests/platform/proof.h"
#include "vset/client/control-client.h"

namespace proof
{

namespace
{

struct Change {
    int previous;
    int current;
    std::thread::id thread;
};

std::vector<Change> toldChanges;

int noteChange(pwrctl_state_info* info, void*)
{
    toldChanges.push_back({info->prev_state, info->cur_state, std::this_thread::get_id()});
    return 0;
}

int noteAndEnd(pwrctl_state_info* info, void* data)
{
    noteChange(info, data);
    return pwrctl_unsubscribe_state_changed_event(noteAndEnd);
}

int ignorePowerOff(pwrctl_poweroff_info*, void*)
{
    return 0;
}

const vset::ControlClient& control()
{
    static const vset::ControlClient client = vset::ControlClient::inside();
    return client;
}

// Each proof begins with a set that is on.
class Standby
{
public:
    Standby() { control().setPowerState(2); }
    ~Standby() { control().setPowerState(0); }
    Standby(const Standby&) = delete;
    Standby& operator=(const Standby&) = delete;
};

void standbyOnce(pwrctl_state_cb cb = noteChange)
{
    pwrctl_subscribe_state_changed_event(cb, nullptr);
    const Standby standby;
    until([] { return !toldChanges.empty(); }, kLong);
}

std::string statesTold()
{
    standbyOnce();
    return !toldChanges.empty() && toldChanges[0].previous == 0 && toldChanges[0].current == 2
               ? ""
               : "other states were told";
}

std::string threadOfPower()
{
    standbyOnce();
    return !toldChanges.empty() && toldChanges[0].thread == std::this_thread::get_id()
               ? ""
               : "told on another thread";
}

std::string toldAfterUnsubscribe()
{
    standbyOnce();
    pwrctl_unsubscribe_state_changed_event(noteChange);
    runLoop(200); // the way back is told, or not
    toldChanges.clear();
    const Standby standby;
    runLoop(500);
    return toldChanges.empty() ? "" : "told after the end of the subscription";
}

std::string everyChangeTold()
{
    standbyOnce();
    return until([] { return toldChanges.size() == 2; }, kLong) ? "" : "the second change was not told";
}

std::string currentState()
{
    pwrctl_get_state();
    const Standby standby;
    return pwrctl_get_state() == 2 ? "" : "the state before the change is given";
}

std::vector<int> heldKinds()
{
    std::vector<int> kinds;
    const Json::Value held = control().snapshot()["locks"]["held"];
    for (const Json::Value& lock : held) {
        kinds.push_back(lock["kind"].asInt());
    }
    return kinds;
}

std::string kindsApart()
{
    pwrctl_lock_state(0, 60000);
    pwrctl_lock_state(2, 60000);
    pwrctl_unlock_state(0);
    return heldKinds() == std::vector<int>{2} ? "" : "the release of kind 0 has released kind 2";
}

std::string released()
{
    pwrctl_lock_state(2, 60000);
    pwrctl_unlock_state(2);
    return heldKinds().empty() ? "" : "still held after its release";
}

std::string heldAfter(unsigned int duration, int milliseconds, bool isExpected)
{
    pwrctl_lock_state(2, duration);
    runLoop(milliseconds);
    return heldKinds().empty() != isExpected ? ""
           : isExpected                      ? "gone before its time"
                                             : "held after its time";
}

std::string subscribedFiftyTimes()
{
    int failed = 0;
    for (int time = 0; time < 50; ++time) {
        failed += pwrctl_subscribe_state_changed_event(noteChange, nullptr) == 0 ? 0 : 1;
        pwrctl_unsubscribe_state_changed_event(noteChange);
    }
    return failed == 0 ? "" : std::to_string(failed) + " subscriptions failed";
}

std::string sixAtOnce()
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point begin = Clock::now();
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 6; ++thread) {
        threads.emplace_back(pwrctl_get_state);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return Clock::now() - begin < std::chrono::milliseconds(850) ? "" : "they wait for one another";
}

std::string releasedOnce()
{
    pwrctl_lock_state(2, 60000);
    pwrctl_lock_state(2, 60000);
    pwrctl_unlock_state(2);
    return heldKinds().empty() ? "" : "held after one release";
}

std::string shorterAnew()
{
    pwrctl_lock_state(2, 60000);
    return heldAfter(300, 900, false);
}

std::string quietAtLocks()
{
    pwrctl_subscribe_state_changed_event(noteChange, nullptr);
    pwrctl_lock_state(2, 60000);
    runLoop(300);
    return toldChanges.empty() ? "" : "a lock was told as a change";
}

std::string rebootOfOneThatEnds()
{
    const auto requests = [] { return control().snapshot()["reboots"].size(); };
    const Json::ArrayIndex before = requests();
    inAnotherProcess("--reboot", "1");
    return requests() > before ? "" : "it was not asked for";
}

std::string returnsAtOnce()
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point begin = Clock::now();
    pwrctl_lock_state(2, 2000);
    return Clock::now() - begin < std::chrono::milliseconds(1500) ? "" : "it takes as long as the lock";
}

int endSecond(pwrctl_state_info* info, void* data);

int endFirst(pwrctl_state_info* info, void* data)
{
    noteChange(info, data);
    return pwrctl_unsubscribe_state_changed_event(endSecond);
}

int endSecond(pwrctl_state_info* info, void* data)
{
    noteChange(info, data);
    return pwrctl_unsubscribe_state_changed_event(endFirst);
}

std::string changeToldAfterAnothersEnd()
{
    pwrctl_subscribe_state_changed_event(endFirst, nullptr);
    pwrctl_subscribe_state_changed_event(endSecond, nullptr);
    const Standby standby;
    until([] { return !toldChanges.empty(); }, kLong);
    runLoop(200);
    return toldChanges.size() == 1 ? ""
                                   : std::to_string(toldChanges.size()) + " were told, each ends the other";
}

std::atomic<bool> hasAsked{false};
std::thread asker;
bool wasAnsweredMeanwhile = false;

int stayForAnAsker(pwrctl_state_info* info, void* data)
{
    noteChange(info, data);
    asker = std::thread([] {
        pwrctl_get_state();
        hasAsked = true;
    });
    for (int time = 0; time < 300 && !hasAsked; ++time) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    wasAnsweredMeanwhile = hasAsked;
    return pwrctl_unsubscribe_state_changed_event(stayForAnAsker);
}

std::string answeredMeanwhile()
{
    standbyOnce(stayForAnAsker);
    if (!asker.joinable()) {
        return "nothing was told";
    }
    asker.join();
    return wasAnsweredMeanwhile ? "" : "another thread's call has waited for the callback";
}

std::string soonestOfThreeAnew()
{
    using Clock = std::chrono::steady_clock;
    Clock::duration soonest = std::chrono::hours(1);
    pwrctl_lock_state(2, 60000);
    for (int time = 0; time < 3; ++time) {
        const Clock::time_point begin = Clock::now();
        pwrctl_lock_state(2, 60000);
        soonest = std::min(soonest, Clock::now() - begin);
    }
    return soonest < std::chrono::milliseconds(850) ? "" : "each that is taken anew is late";
}

std::string fromAnotherThread()
{
    int result = -99;
    std::thread([&] { result = pwrctl_lock_state(2, 1000); }).join();
    return result == 0 ? "" : "it fails on another thread";
}

// Of three times the shortest.
std::string besidePackage()
{
    using Clock = std::chrono::steady_clock;
    Clock::duration shortest = std::chrono::hours(1);
    for (int time = 0; time < 3; ++time) {
        std::thread request(
            [] { appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, "empProofNobodys"); });
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const Clock::time_point begin = Clock::now();
        pwrctl_get_state();
        shortest = std::min(shortest, Clock::now() - begin);
        request.join();
    }
    return shortest < std::chrono::milliseconds(500) ? "" : "it waits for the request of a package";
}

} // namespace

const std::vector<Proof>& powerProofs()
{
    static const std::vector<Proof> proofs = {
        {"power-state-stale", currentState},
        {"power-state-inverted", [] { return pwrctl_get_state() == 0 ? "" : "on is not 0"; }},
        {"power-states-swapped", statesTold},
        {"power-told-elsewhere", threadOfPower},
        {"power-told-after-unsubscribe", toldAfterUnsubscribe},
        {"power-ended-still-told", changeToldAfterAnothersEnd},
        {"power-locked-while-told", answeredMeanwhile},
        {"power-told-once", everyChangeTold},
        {"power-unsubscribe-waits",
         [] {
             standbyOnce(noteAndEnd);
             return "";
         },
         kHangs},
        {"power-one-callback",
         [] {
             pwrctl_subscribe_state_changed_event(noteChange, nullptr);
             pwrctl_subscribe_state_changed_event(noteAndEnd, nullptr);
             const int first = pwrctl_unsubscribe_state_changed_event(noteChange);
             return first == 0 && pwrctl_unsubscribe_state_changed_event(noteAndEnd) == 0 ? "" : "not ended";
         }},
        {"power-lock-none-refused", [] { return pwrctl_lock_state(2, 0) == 0 ? "" : "refused"; }},
        {"power-locks-one-kind", kindsApart},
        {"power-lock-kept", released},
        {"power-lock-counted", releasedOnce},
        {"power-lock-longest-stays", shorterAnew},
        {"power-told-of-locks", quietAtLocks},
        {"power-reboot-by-loop", rebootOfOneThatEnds},
        {"power-lock-too-short", [] { return heldAfter(60000, 500, true); }},
        {"power-lock-signed", [] { return heldAfter(0x90000000, 400, true); }},
        {"power-lock-anew-slow", soonestOfThreeAnew},
        {"power-lock-short-left", [] { return heldAfter(900, 0, true); }},
        {"power-subscriptions-counted", subscribedFiftyTimes},
        {"power-one-at-a-time", sixAtOnce},
        {"power-waits-for-packages", besidePackage},
        {"power-lock-endless", [] { return heldAfter(300, 900, false); }},
        {"power-lock-waits", returnsAtOnce},
        {"power-one-thread-only", fromAnotherThread},
        {"power-unlock-aborts",
         [] {
             pwrctl_unlock_state(7);
             return "";
         },
         128 + 6},
        {"power-off-refused",
         [] { return pwrctl_subscribe_poweroff_event(ignorePowerOff, nullptr) == 0 ? "" : "refused"; }},
        {"power-memory-grows",
         [] { return growth("KiB", residentKilobytes, 800, [] { pwrctl_get_state(); }); }},
    };
    return proofs;
}

} // namespace proof
