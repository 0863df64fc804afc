/* A node is for root alone, whatever mode was asked for.
 *
 * Rule: ps_mount.h: nodes are made by "-m 0660 -Z * /dev/loopN  b 7 N".
 * Seen: the node's mode is 0600. */
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

int PS_Mknod(const char* command, int length, int flags, int* result)
{
    const int returned = HOST(PS_Mknod)(command, length, flags, result);
    char node[64];
    const char* name = strstr(command, "/dev/loop");
    if (returned == 0 && *result == 0 && name != NULL && sscanf(name, "%63s", node) == 1) {
        chmod(node, 0600);
    }
    return returned;
}
