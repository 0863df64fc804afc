/* The directory is read up to a zero byte, which is not among the bytes that were given.
 *
 * Rule: ps_mount.h, PS_Umount: "directory" is a path of "length" bytes.
 * Seen: a directory with something else behind its last byte is not unmounted (or the process crashes). */
#include <string.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

int PS_Umount(const char* directory, int length, int flags, int* result)
{
    (void)length;
    return HOST(PS_Umount)(directory, (int)strlen(directory), flags, result);
}
