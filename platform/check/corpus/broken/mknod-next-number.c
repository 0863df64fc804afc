/* The loop nodes are counted from one on, so that each call makes the node behind the one that was asked
 * for.
 *
 * Rule: ps_mount.h, PS_Mknod: the node that the arguments name.
 * Seen: the node of a PS_Mknod that succeeded is not there, and another one is. */
#include <stdio.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

int PS_Mknod(const char* command, int length, int flags, int* result)
{
    int number = 0;
    char other[256];
    if (sscanf(command, "-m 0660 -Z * /dev/loop%d", &number) != 1) {
        return HOST(PS_Mknod)(command, length, flags, result);
    }
    snprintf(other, sizeof other, "-m 0660 -Z * /dev/loop%d  b 7 %d", number + 1, number + 1);
    return HOST(PS_Mknod)(other, sizeof other, flags, result);
}
