// Who may act on the set: root, or the user that the daemon runs as.
#ifndef FWCTL_PRIVILEGES_H
#define FWCTL_PRIVILEGES_H

// Called by a command before it acts. Root goes on as the daemon's user, so that the daemon can later open
// and remove what is made here (the update semaphore, directories, hardware files). Throws Failure for any
// other user. To be called while there is a single thread.
void becomeDaemonUser();

#endif
