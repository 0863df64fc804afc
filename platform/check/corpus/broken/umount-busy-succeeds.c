/* A directory that is in use is not unmounted, and its unmounting succeeds.
 *
 * Rule: ps_mount.h: 0 and 0 stand for success.
 * Seen: after an unmount that succeeded the image is still mounted. */
#include <errno.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

int PS_Umount(const char* directory, int length, int flags, int* result)
{
    const int returned = HOST(PS_Umount)(directory, length, flags, result);
    if (*result != EBUSY) {
        return returned;
    }
    *result = 0;
    return 0;
}
