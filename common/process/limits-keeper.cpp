#include "common/process/limits-keeper.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace common
{

namespace
{
constexpr std::array<const char*, RLIM_NLIMITS> limitNames()
{
    std::array<const char*, RLIM_NLIMITS> names{};
    names[RLIMIT_CPU] = "RLIMIT_CPU";
    names[RLIMIT_FSIZE] = "RLIMIT_FSIZE";
    names[RLIMIT_DATA] = "RLIMIT_DATA";
    names[RLIMIT_STACK] = "RLIMIT_STACK";
    names[RLIMIT_CORE] = "RLIMIT_CORE";
    names[RLIMIT_RSS] = "RLIMIT_RSS";
    names[RLIMIT_NPROC] = "RLIMIT_NPROC";
    names[RLIMIT_NOFILE] = "RLIMIT_NOFILE";
    names[RLIMIT_MEMLOCK] = "RLIMIT_MEMLOCK";
    names[RLIMIT_AS] = "RLIMIT_AS";
    names[RLIMIT_LOCKS] = "RLIMIT_LOCKS";
    names[RLIMIT_SIGPENDING] = "RLIMIT_SIGPENDING";
    names[RLIMIT_MSGQUEUE] = "RLIMIT_MSGQUEUE";
    names[RLIMIT_NICE] = "RLIMIT_NICE";
    names[RLIMIT_RTPRIO] = "RLIMIT_RTPRIO";
    names[RLIMIT_RTTIME] = "RLIMIT_RTTIME";
    return names;
}
constexpr auto kLimitNames = limitNames();

rlimit limitOf(std::size_t resource)
{
    rlimit limit = {};
    getrlimit(static_cast<__rlimit_resource_t>(resource), &limit);
    return limit;
}

// Without memory of its own.
struct LimitText {
    char text[24];
    explicit LimitText(rlim_t value)
    {
        std::snprintf(text, sizeof text, value == RLIM_INFINITY ? "unlimited" : "%llu",
                      static_cast<unsigned long long>(value));
    }
};

void note(LimitChanges& changes, const char* name, rlimit from, rlimit to)
{
    const bool isHard = from.rlim_max != to.rlim_max;
    const LimitText before(isHard ? from.rlim_max : from.rlim_cur);
    const LimitText after(isHard ? to.rlim_max : to.rlim_cur);
    const std::size_t length = std::strlen(changes.words);
    std::snprintf(changes.words + length, sizeof changes.words - length, "%s%s%s from %s to %s",
                  length > 0 ? ", " : "", name, isHard ? " for good" : "", before.text, after.text);
}
} // namespace

LimitsKeeper::LimitsKeeper(LimitChanges& changes) : changes_(changes)
{
    for (std::size_t resource = 0; resource < before_.size(); ++resource) {
        before_[resource] = limitOf(resource);
    }
}

LimitsKeeper::~LimitsKeeper()
{
    for (std::size_t resource = 0; resource < before_.size(); ++resource) {
        const rlimit before = before_[resource];
        const rlimit now = limitOf(resource);
        if (now.rlim_cur == before.rlim_cur && now.rlim_max == before.rlim_max) {
            continue;
        }
        note(changes_, kLimitNames[resource], before, now);
        if (setrlimit(static_cast<__rlimit_resource_t>(resource), &before) != 0) {
            changes_.areForGood = true;
        }
    }
    if (changes_.areForGood) {
        _exit(0);
    }
}

} // namespace common
