/* Unusual but right: a mount takes one and a half seconds, as its service is started for it.
 *
 * Rule: platform/README.md: a call may block: the daemon makes the slow ones on threads of their own.
 */
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

int PS_Mount(const char* command, int length, int flags, int* result)
{
    usleep(900000);
    usleep(600000);
    return HOST(PS_Mount)(command, length, flags, result);
}
