// What the daemon's own code says while fwctl runs it. The executable defines the platform's two log calls
// itself, in place of those of the platform library.
//
// At first every message is only kept: a command that changes nothing leaves no line in the set's log either.
// forwardDaemonLog() passes later messages on to the platform's own log, as the daemon's are. Every thread
// may log.
#ifndef TOOLS_FWCTL_MODULES_DAEMON_LOG_H
#define TOOLS_FWCTL_MODULES_DAEMON_LOG_H

#include <functional>
#include <string>
#include <vector>

namespace fwctl
{

// From now on messages go to the platform's log too, and to `show` unless it is empty, on the thread that
// logs.
void forwardDaemonLog(std::function<void(const std::string& message)> show = {});

// The messages since the last call, without their place in the source and without a final newline.
std::vector<std::string> takeDaemonMessages();

// The last of them that is a complaint, likewise; empty when there is none.
std::string takeLastComplaint();

// Called with each message on the thread that logs it, until it is replaced; empty for none.
void onDaemonMessage(std::function<void(const std::string&)> listener);

} // namespace fwctl

#endif
