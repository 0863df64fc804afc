/* A mount that has failed is told by errno alone.
 *
 * Rule: ps_mount.h: a call succeeded when its return value and "*result" are both 0.
 * Seen: a missing image is mounted with success, and nothing is there. */
#include <errno.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

int PS_Mount(const char* command, int length, int flags, int* result)
{
    int outcome = 0;
    HOST(PS_Mount)(command, length, flags, &outcome);
    *result = 0;
    errno = outcome;
    return 0;
}
