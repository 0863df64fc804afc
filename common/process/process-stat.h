// What the kernel tells of a process or a thread in its "stat".
#ifndef COMMON_PROCESS_PROCESS_STAT_H
#define COMMON_PROCESS_PROCESS_STAT_H

#include <optional>
#include <string>
#include <sys/types.h>

namespace common
{

struct ProcessStat {
    char state = 0; // 'R', 'S', 'D', ... 'Z': it has ended, and nobody has asked how
    pid_t parent = 0;
    unsigned long long startTicks = 0; // since this machine's start, in sysconf(_SC_CLK_TCK) a second

    bool hasEnded() const { return state == 'Z' || state == 'X'; }
    bool isAsleep() const { return state == 'S' || state == 'D'; }
};

// Of "/proc/PID" or "/proc/PID/task/TID". Nothing when there is none.
std::optional<ProcessStat> readProcessStat(const std::string& directory);

} // namespace common

#endif
