/* A mount leaves the process in the directory of the packages.
 *
 * Rule: platform/README.md: the process is the daemon's; a call does what it is for, and nothing to the
 *       process.
 * Seen: the working directory is another one after PS_Mount. */
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

int PS_Mount(const char* command, int length, int flags, int* result)
{
    if (chdir("/opt/usr/apps") != 0) {
        return -1;
    }
    return HOST(PS_Mount)(command, length, flags, result);
}
