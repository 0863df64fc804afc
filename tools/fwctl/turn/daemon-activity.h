// What a process that runs the daemon's code is doing, from what it says in the set's platform log. Its texts
// are an interface that other programs read, so they may be relied on.
#ifndef TOOLS_FWCTL_TURN_DAEMON_ACTIVITY_H
#define TOOLS_FWCTL_TURN_DAEMON_ACTIVITY_H

#include <string>
#include <sys/types.h>
#include <vector>

namespace fwctl
{

// A thread that has said that it wants to update, and nothing since: it waits for its turn, or has it.
struct UpdatingThread {
    pid_t thread;
    std::string module; // the firmware's name
};

struct DaemonActivity {
    bool isKnown = false; // the log is there, and the process has written to it
    std::vector<UpdatingThread> updating;
};

// A television may keep its log elsewhere: then nothing is known. Threads that have ended are left out.
DaemonActivity activityOf(pid_t process);

} // namespace fwctl

#endif
