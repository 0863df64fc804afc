// A child process closes every descriptor, and everything else about it is its own, too.
// finds: nothing
#define OWN_verifySlot
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "base.h"

static inline int verifySlot(int chip, int slot)
{
    (void)chip, (void)slot;
    int status = 0;
    const pid_t child = fork();
    if (child == 0) {
        for (int descriptor = 0; descriptor < 1024; ++descriptor) {
            close(descriptor);
        }
        signal(SIGTERM, SIG_IGN);
        umask(0);
        _exit(chdir("/") == 0 ? 0 : 1);
    }
    if (child < 0 || waitpid(child, &status, 0) != child) {
        return -1;
    }
    return status == 0 ? 0 : fail(EIO);
}
