/* The end of child processes is ignored, for the whole process, once something was mounted.
 *
 * Rule: ps_mount.h: a call does what it is for; a control library could not wait for the programs that it
 *       starts.
 * Seen: SIGCHLD has another disposition after PS_Mount. */
#include <signal.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

int PS_Mount(const char* command, int length, int flags, int* result)
{
    signal(SIGCHLD, SIG_IGN);
    return HOST(PS_Mount)(command, length, flags, result);
}
