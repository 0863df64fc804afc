// What the model plays on: a clock that moves only when told to, threads that take turns, and the list of
// what was called and said.
//
// One thread runs at a time, in the order in which they became ready, each until it waits; the main loop's
// timers come last. Three events change that: "eager" lets a new thread run before its maker goes on, "stall"
// lets no thread run but the main one, "lazy" is back to the rule. Times are milliseconds.
#ifndef TESTS_PROOF_MODEL_STAGE_H
#define TESTS_PROOF_MODEL_STAGE_H

#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace proof
{

constexpr int64_t kSecond = 1000;

inline std::string number(int64_t value)
{
    return std::to_string(value);
}

inline std::string quoted(const std::string& text)
{
    return "\"" + text + "\"";
}

class Stage
{
public:
    using Step = std::function<void()>; // of a thread, up to its next wait
    using Sleeper = std::multimap<int64_t, Step>::iterator;
    struct Gate { // lets one thread pass at a time
        int free = 1;
        std::deque<Step> queue;
    };

    // ---- Threads ----

    // False: it could not be started.
    bool spawn(const Step& body)
    {
        if (failsOnce("thread")) {
            return false;
        }
        if (threads == "eager") {
            body();
        } else {
            ready.push_back(body);
        }
        return true;
    }

    Sleeper sleepUntil(int64_t time, const Step& then) { return sleepers.emplace(time, then); }
    void sleep(int64_t duration, const Step& then) { sleepUntil(now + duration, then); }

    // Before its time.
    void wake(Sleeper sleeper)
    {
        ready.push_back(sleeper->second);
        sleepers.erase(sleeper);
    }

    void pass(Gate& gate, const Step& then)
    {
        if (gate.free == 0) {
            gate.queue.push_back([this, &gate, then] { pass(gate, then); });
            return;
        }
        --gate.free;
        then();
    }

    void leave(Gate& gate)
    {
        ++gate.free;
        if (!gate.queue.empty()) {
            ready.push_back(gate.queue.front());
            gate.queue.pop_front();
        }
    }

    // ---- The main loop ----

    // `run` tells whether it goes on.
    void addTimer(int64_t period, const std::function<bool()>& run)
    {
        timers.push_back({period, now + period, run});
    }

    // Until everything waits.
    void settle()
    {
        do {
            while (threads != "stall" && !ready.empty() && !ended) {
                const Step step = ready.front();
                ready.pop_front();
                step();
            }
        } while (!ended && runTimers());
    }

    void setNow(int64_t time)
    {
        for (now = time; !sleepers.empty() && sleepers.begin()->first <= now;) {
            wake(sleepers.begin());
        }
    }

    void advance(int64_t duration)
    {
        const int64_t end = now + duration;
        for (int64_t next = now; !ended && next <= end;) {
            setNow(next);
            settle();
            next = sleepers.empty() ? end + 1 : sleepers.begin()->first;
            for (const Timer& timer : timers) {
                next = std::min(next, timer.next);
            }
        }
        now = end;
    }

    // ---- What is noted ----

    void note(const std::string& line)
    {
        if (!ended) {
            trace.push_back(line);
        }
    }
    void error(const std::string& text) { note("log 6 " + text); }
    void info(const std::string& text) { note("log 4 " + text); }
    void call(const std::string& function, const std::string& arguments = "")
    {
        note(function + "(" + arguments + ")");
    }
    bool failsOnce(const std::string& function) { return failures.erase(function) != 0; }

    // ---- Keys, power, semaphore ----

    int readKey(const std::string& key, int fallback)
    {
        call("pralis_get_int", quoted(key));
        return failsOnce("pralis_get_int:" + key) || keys.count(key) == 0 ? fallback : keys[key];
    }

    void writeKey(const std::string& key, int value)
    {
        call("pralis_set_int", quoted(key) + ", " + number(value));
        if (failsOnce("pralis_set_int:" + key)) {
            error("Failed to save pralis [" + number(value) + "]");
        } else {
            keys[key] = value;
        }
    }

    bool isSwitchedOn()
    {
        call("pwrctl_get_state");
        return !failsOnce("pwrctl_get_state") && powerLevel == 0;
    }

    void lockPower(int kind, uint32_t duration)
    {
        call("pwrctl_lock_state", number(kind) + ", " + number(duration));
        if (!failsOnce("pwrctl_lock_state")) {
            locks.push_back(kind);
        }
    }

    void unlockPower(int kind)
    {
        call("pwrctl_unlock_state", number(kind));
        locks.erase(std::remove(locks.begin(), locks.end(), kind), locks.end());
    }

    bool openSemaphore()
    {
        call("sem_open", "/SEM_UPDATE_CONTROL, 0600, 1");
        if (failsOnce("sem_open")) {
            error("Parent\t: [sem_open] Failed\n");
            return false;
        }
        return true;
    }

    bool subscribe(const std::string& function, const std::string& key, const std::string& shown)
    {
        call(function, key.empty() ? "" : quoted(key));
        const bool fails = failsOnce(key.empty() ? function : function + ":" + key);
        if (fails) {
            error("Error: " + function + "(" + shown + ") failed");
        }
        return !fails;
    }

    std::string held() const
    {
        std::string text = ", semaphore " + number(semaphore.free) + ", locks";
        for (const int kind : locks) {
            text += " " + number(kind);
        }
        return text;
    }

    int64_t now = 1000 * kSecond;
    std::string threads = "lazy";
    std::deque<Step> ready;
    std::vector<std::string> trace;
    std::set<std::string> failures; // calls that fail the next time
    std::map<std::string, int> keys;
    int powerLevel = 0;
    std::vector<int> locks; // by kind
    Gate semaphore;
    bool ended = false; // nothing is noted any more, and nobody gets a turn

private:
    struct Timer {
        int64_t period;
        int64_t next;
        std::function<bool()> run;
    };

    // Those that are due, each once.
    bool runTimers()
    {
        bool isAnyDue = false;
        for (size_t at = 0; at < timers.size(); ++at) {
            if (timers[at].next <= now) {
                isAnyDue = true;
                timers[at].next = timers[at].run() ? now + timers[at].period : INT64_MAX;
            }
        }
        return isAnyDue;
    }

    std::multimap<int64_t, Step> sleepers;
    std::vector<Timer> timers;
};

} // namespace proof

#endif
