/* Unusual but right: a helper program is started for every mount, and waited for.
 *
 * Rule: ps_mount.h says what a mount does, not how. The child is the library's, and gone when the call
 *       returns.
 */
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

extern char** environ;

int PS_Mount(const char* command, int length, int flags, int* result)
{
    char* const arguments[] = {(char[]){"true"}, NULL};
    pid_t helper = 0;
    if (posix_spawnp(&helper, arguments[0], NULL, NULL, arguments, environ) != 0 ||
        waitpid(helper, NULL, 0) != helper) {
        *result = 5;
        return -1;
    }
    return HOST(PS_Mount)(command, length, flags, result);
}
