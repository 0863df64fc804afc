// The limits of the process (setrlimit), kept over a call of others.
#ifndef COMMON_PROCESS_LIMITS_KEEPER_H
#define COMMON_PROCESS_LIMITS_KEEPER_H

#include <array>
#include <atomic>
#include <sys/resource.h>

namespace common
{

// What a call has changed. In memory that is shared with the process that has to tell of it.
struct LimitChanges {
    char words[200];              // "RLIMIT_NOFILE from 1024 to 3", or ""
    std::atomic<bool> areForGood; // the process has ended because of them
};

// Puts the limits back at the end of its scope, before anything else is done under them: without memory or
// descriptors even a report is impossible. A hard limit that was lowered stays so; then the process ends.
class LimitsKeeper
{
public:
    explicit LimitsKeeper(LimitChanges& changes);
    ~LimitsKeeper();
    LimitsKeeper(const LimitsKeeper&) = delete;
    LimitsKeeper& operator=(const LimitsKeeper&) = delete;

private:
    LimitChanges& changes_;
    std::array<rlimit, RLIM_NLIMITS> before_{};
};

} // namespace common

#endif
