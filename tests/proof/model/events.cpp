#include "tests/proof/model/events.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace proof
{

namespace
{

struct Weighted {
    const char* event;
    int weight;
};

constexpr Weighted kEvents[] = {
    {"tick", 60},                 // a second passes
    {"wait:500", 10},             // some milliseconds pass
    {"wait:6000", 25},            // until a launch is over, for example
    {"wait:65000", 3},            // until everything that waits has given up
    {"jump:1", 4},                // the clock is ahead by that many seconds at once
    {"jump:599", 2},              //
    {"jump:600", 12},             //
    {"power:0>2", 14},            // the power state changes
    {"power:2>0", 8},             //
    {"power:0>3", 2},             //
    {"power:3>0", 3},             //
    {"power:0>4", 2},             //
    {"power:4>0", 4},             //
    {"power:2>4", 2},             //
    {"power:1>2", 2},             //
    {"level:0", 4},               // it is another one, and nobody is told
    {"level:2", 2},               //
    {"level:-1", 1},              // it cannot be read
    {"poweroff", 1},              //
    {"key:1", 20},                // the upgrade UI or another process sets the status key
    {"key:4", 8},                 //
    {"key:0", 2},                 //
    {"key:2", 2},                 //
    {"key:3", 2},                 //
    {"key:null", 1},              // it is gone
    {"mirror:1", 3},              //
    {"mirror:0", 4},              //
    {"mirror:2", 1},              //
    {"mirror:null", 1},           //
    {"working:0", 3},             // another component's update session
    {"working:1", 2},             //
    {"manager:0", 2},             // the package manager's marker is taken away
    {"manager:1", 6},             //
    {"factory:1", 1},             // so is the factory's
    {"factory:0", 2},             //
    {"launch:ok", 5},             // launch requests are answered from now on
    {"launch:fail", 3},           //
    {"update:ok", 8},             // the modules' updates from now on: a tenth of a second
    {"update:fail", 4},           //
    {"update:slow", 4},           // 5 seconds
    {"update:quick", 4},          // over at once
    {"update:hang", 5},           // until they are freed
    {"free", 8},                  //
    {"progress:5000", 2},         // of the modules, in percent
    {"progress:42", 1},           //
    {"lazy", 5},                  // how threads take turns, see model.h
    {"eager", 3},                 //
    {"stall", 4},                 //
    {"fail:applaunch_create", 1}, // the next such call fails
    {"fail:applaunch_set_app_id", 1},
    {"fail:pralis_notify_key_changed:memory/ep_firmware_update_app/fw_update_status", 1},
    {"fail:pralis_get_int:memory/enterprise/swupgrade/working_status", 2},
    {"fail:pralis_set_int:memory/enterprise/swupgrade/working_status", 1},
    {"fail:PS_Mount", 2},
    {"fail:setContext", 1},
    {"fail:checkVersion", 1},
    {"fail:pwrctl_get_state", 1},
    {"fail:pwrctl_lock_state", 1},
    {"fail:sem_open", 1},
    {"fail:thread", 3}, // it cannot be started
};

struct NamedSet {
    const char* name;
    std::vector<Module> modules;
};

// In the order of the names of their files, which is that of the registry.
const std::vector<NamedSet>& sets()
{
    const Module external{"EXT-delta", "", {}, {}};
    static const std::vector<NamedSet> all = {
        {"mixed", {external, alpha({}, sound(1, "select", 10)), beta({}, sound(1, "none", 3))}},
        {"select", {alpha({}, sound(1, "select", 10))}},
        {"force", {alpha(sound(1, "force", 5), {}), beta({}, sound(0, "none", 9))}},
        {"background", {alpha({}, sound(1, "none", 3))}},
        {"two", {alpha({}, sound(1, "select", 4)), gamma({}, sound(1, "force", 6))}},
        {"three",
         {alpha({}, sound(1, "none", 1)), beta({}, sound(1, "none", 2)), gamma({}, sound(1, "none", 0))}},
        {"both", {alpha(sound(1, "select", 7), sound(1, "none", 2)), beta({}, sound(1, "select", 1))}},
        {"older", {alpha(sound(1, "select", 7), sound(0, "select", 2))}},
        {"broken", {alpha(sound(1, "select", 7), broken()), beta(sound(1, "force", 2), {})}},
        {"built-in", {alpha(sound(1, "select", 7), {}), beta({}, sound(1, "none", 2))}},
        {"zero", {alpha({}, sound(1, "select", 0))}},
        {"future", {alpha({}, sound(2, "select", 5)), beta({}, sound(1, "select", 40))}},
        {"nothing",
         {alpha(sound(0, "select", 7), sound(-1, "none", 2)), beta(sound(1, "none", 2), broken())}},
        {"external", {external}},
        {"empty", {}},
    };
    return all;
}

struct Flag {
    const char* name;
    unsigned int rarity; // one set in so many has it
    void (*set)(Television& television);
};

constexpr Flag kFlags[] = {
    {"eager", 8, [](Television& television) { television.isEager = true; }},
    {"factory", 12, [](Television& television) { television.isFactory = true; }},
    {"asked", 8, [](Television& television) { television.wereAsked = true; }},
    {"unready", 8, [](Television& television) { television.isManagerReady = false; }},
    {"working", 8, [](Television& television) { television.working = 1; }},
};

// Flags as well: what fails at the start.
struct Failure {
    const char* name;
    const char* function;
};

constexpr Failure kFailures[] = {
    {"no-version", "sysprop_get_value_string"},
    {"no-semaphore", "sem_open"},
    {"no-watchdog", "hangwatch_register_watchdog_service"},
    {"no-power", "pwrctl_subscribe_state_changed_event"},
    {"no-poweroff", "pwrctl_subscribe_poweroff_event"},
    {"no-mirroring", "pralis_notify_key_changed:memory/menu/network/screenmirroring/smsrc_status"},
    {"no-download", "ABM_DownloadAppBinary"},
    {"no-mount", "PS_Mount"},
    {"no-judgement", "checkVersion"},
};
constexpr unsigned int kRarityOfFailures = 30;

// False: there is no such flag.
bool setFlag(Television& television, const std::string& name)
{
    for (const Flag& flag : kFlags) {
        if (flag.name == name) {
            flag.set(television);
            return true;
        }
    }
    for (const Failure& failure : kFailures) {
        if (failure.name == name) {
            television.failures.emplace_back(failure.function);
            return true;
        }
    }
    return false;
}

std::vector<std::string> split(const std::string& text, char separator)
{
    std::istringstream stream(text);
    std::vector<std::string> parts;
    for (std::string part; std::getline(stream, part, separator);) {
        if (!part.empty()) {
            parts.push_back(part);
        }
    }
    return parts;
}

// Further numbers may be written by hand than those that come by chance.
bool isEvent(const std::string& event)
{
    const std::string kind = event.substr(0, event.find(':'));
    return std::any_of(std::begin(kEvents), std::end(kEvents), [&](const Weighted& one) {
        const std::string known = one.event;
        return known.substr(0, known.find(':')) == kind && (known == kind) == (event == kind);
    });
}

} // namespace

std::string textOf(const Case& one)
{
    std::string text = one.set + ":";
    for (const std::string& event : one.events) {
        text += " " + event;
    }
    return text;
}

Case caseFrom(const std::string& text)
{
    const size_t colon = text.find(':');
    Case one{text.substr(0, colon), {}};
    televisionOf(one.set);
    if (colon != std::string::npos) {
        one.events = split(text.substr(colon + 1), ' ');
    }
    for (const std::string& event : one.events) {
        if (!isEvent(event)) {
            throw std::invalid_argument("no such event: " + event);
        }
    }
    return one;
}

std::vector<std::string> setNames()
{
    std::vector<std::string> names;
    for (const NamedSet& set : sets()) {
        names.emplace_back(set.name);
    }
    return names;
}

Television televisionOf(const std::string& set)
{
    const std::vector<std::string> parts = split(set, '+');
    const auto named = std::find_if(sets().begin(), sets().end(), [&](const NamedSet& one) {
        return !parts.empty() && one.name == parts.front();
    });
    if (named == sets().end()) {
        throw std::invalid_argument("no such set: " + set);
    }
    Television television;
    television.modules = named->modules;
    for (size_t at = 1; at < parts.size(); ++at) {
        if (!setFlag(television, parts[at])) {
            throw std::invalid_argument("no such flag of a set: " + parts[at]);
        }
    }
    return television;
}

std::string randomSet(std::mt19937_64& random)
{
    // Those that have something to do come more often.
    const size_t number = std::min(random() % sets().size(), random() % sets().size());
    std::string set = sets()[number].name;
    for (const Flag& flag : kFlags) {
        set += random() % flag.rarity == 0 ? std::string("+") + flag.name : "";
    }
    for (const Failure& failure : kFailures) {
        set += random() % kRarityOfFailures == 0 ? std::string("+") + failure.name : "";
    }
    return set;
}

std::string randomEvent(std::mt19937_64& random)
{
    int sum = 0;
    for (const Weighted& one : kEvents) {
        sum += one.weight;
    }
    int left = static_cast<int>(random() % static_cast<uint64_t>(sum));
    for (const Weighted& one : kEvents) {
        left -= one.weight;
        if (left < 0) {
            return one.event;
        }
    }
    return kEvents[0].event;
}

std::vector<std::string> eventNames()
{
    std::vector<std::string> names;
    for (const Weighted& one : kEvents) {
        names.emplace_back(one.event);
    }
    return names;
}

const std::vector<std::string>& fewEvents()
{
    static const std::vector<std::string> few = {"tick",      "wait:6000", "jump:600",    "power:0>2",
                                                 "power:2>0", "key:1",     "key:4",       "mirror:1",
                                                 "poweroff",  "stall",     "launch:fail", "update:hang"};
    return few;
}

} // namespace proof
