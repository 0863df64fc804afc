// What the rest of the set is doing: the daemon, its update semaphore, and what keeps it from updating.
// Nothing here changes anything. The questions over the bus start threads of GLib's: ask them after the last
// runIsolated().
#ifndef TOOLS_FWCTL_SET_STATE_H
#define TOOLS_FWCTL_SET_STATE_H

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace fwctl
{

struct DaemonState {
    bool hasBus = false; // the system bus answers
    pid_t pid = 0;       // 0: it has not come to the bus
    pid_t starting = 0; // then: a process of the daemon's name, which has not yet; 0: the daemon does not run
    uid_t user = 0;     // when it runs
    long seconds = 0;   // since its start, by the set's clock where the set tells
};
DaemonState findDaemon();

// Why this process has no bus, when it has none, and what to do about it.
struct BusProblem {
    std::string text;
    std::string advice;
};
BusProblem problemOfBus();

// The user that the daemon runs as, also when it does not run just now: by the bus, by the owner of the
// update semaphore, by its usual name. Empty when the set does not tell.
std::optional<uid_t> daemonUser();

// The same without a question to the bus, for before there may be threads.
std::optional<uid_t> usualDaemonUser();

// A process that has the update semaphore open.
struct SemaphoreUser {
    pid_t pid;
    std::string name;
    std::vector<pid_t> waitingThreads; // that wait for their turn just now
};

struct SemaphoreState {
    bool exists = false;
    bool isForeign = false; // something else stands in its place, or it is spoilt
    bool isReadable = false;
    int value = 0; // 0: an update has its turn
    uid_t owner = 0;
};
SemaphoreState peekUpdateSemaphore();

// Why it cannot be opened, or read, and what to do about it.
struct SemaphoreProblem {
    std::string text;
    std::string advice;
};
SemaphoreProblem problemOf(const SemaphoreState& semaphore);

struct SemaphoreUsers {
    std::vector<SemaphoreUser> known; // without this process
    bool areAllKnown = true;          // false when a process would not let itself be looked at
};
SemaphoreUsers findSemaphoreUsers();

// Whether there is such a process, and it has not ended.
bool isRunning(pid_t process);

} // namespace fwctl

#endif
