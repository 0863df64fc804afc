/* The number of a node is read from its last digit.
 *
 * Rule: ps_mount.h: nodes are made by "-m 0660 -Z * /dev/loopN  b 7 N".
 * Seen: /dev/loop43 is the device of /dev/loop3. */
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

int PS_Mknod(const char* command, int length, int flags, int* result)
{
    const int returned = HOST(PS_Mknod)(command, length, flags, result);
    char node[64];
    struct stat made;
    struct stat first;
    const char* name = strstr(command, "/dev/loop");
    if (returned == 0 && *result == 0 && name != NULL && sscanf(name, "%63s", node) == 1 &&
        stat(node, &made) == 0 && stat("/dev/loop0", &first) == 0 && strlen(node) > strlen("/dev/loopN")) {
        const unsigned int last = (unsigned int)(node[strlen(node) - 1] - '0');
        unlink(node);
        mknod(node, made.st_mode, makedev(7, minor(first.st_rdev) + last));
        chmod(node, 0660);
    }
    return returned;
}
