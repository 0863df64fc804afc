/* Unusual but right: every read and write takes 80 ms, as it goes through to the disk.
 *
 * Rule: platform/README.md: a call may block; the daemon reads and writes a few keys in a second at most.
 */
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

int pralis_get_int(const char* key, int* value)
{
    usleep(80000);
    return HOST(pralis_get_int)(key, value);
}

int pralis_set_int(const char* key, int value)
{
    usleep(80000);
    return HOST(pralis_set_int)(key, value);
}
