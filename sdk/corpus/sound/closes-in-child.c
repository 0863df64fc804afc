// A child process closes every descriptor, and everything else about it is its own, too.
// finds: nothing
#define OWN_switchTo
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "base.h"

static inline int switchTo(int chip, int slot)
{
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
    if (status != 0 || pwrite(chip, slot == 0 ? "0" : "1", 1, 0) != 1) {
        return fail(EIO);
    }
    return fdatasync(chip);
}
