// Who may act on the set: root, or the user that the daemon runs as.
#ifndef TOOLS_FWCTL_PRIVILEGES_H
#define TOOLS_FWCTL_PRIVILEGES_H

#include <optional>
#include <sys/types.h>

namespace fwctl
{

// The daemon's user, as which root can go on here; root itself where there is no other user to become. Throws
// Failure when this process is neither.
uid_t requireUpdater();

// The same without a question to the bus; empty when this process is neither, or the set does not tell.
std::optional<uid_t> likelyUpdater();

// Goes on as `user`, which requireUpdater() gave. To be called while there is a single thread.
void becomeUser(uid_t user);

// Goes on as that one, when there is one. In a child that runs a library's code.
void becomeLikelyUpdater();

// Called by a command before it acts. Root goes on as the daemon's user, so that the daemon can later open
// and remove what is made here (the update semaphore, directories, hardware files). Throws Failure for any
// other user. To be called while there is a single thread.
void becomeDaemonUser();

} // namespace fwctl

#endif
