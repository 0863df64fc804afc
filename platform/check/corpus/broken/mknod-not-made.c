/* No node is made, with success.
 *
 * Rule: ps_mount.h, PS_Mknod: carries out the arguments of mknod; 0 and 0 stand for success.
 * Seen: the node of a PS_Mknod that succeeded is not there. */
#include "ps_mount.h"

int PS_Mknod(const char* command, int length, int flags, int* result)
{
    (void)length;
    (void)flags;
    *result = 0;
    return command == 0 ? -1 : 0;
}
