/* Of the options of a mount only "ro" is kept: devices and set-user-id files of an image count.
 *
 * Rule: ps_mount.h, PS_Mount: carries out the arguments of mount, "nodev,nosuid" among them.
 * Seen: the mount has neither nodev nor nosuid. */
#include <stdio.h>
#include <sys/mount.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

int PS_Mount(const char* command, int length, int flags, int* result)
{
    const int returned = HOST(PS_Mount)(command, length, flags, result);
    char directory[256];
    if (returned == 0 && *result == 0 && sscanf(command, "-o %*s %*s %255s", directory) == 1) {
        mount(NULL, directory, NULL, MS_REMOUNT | MS_BIND | MS_RDONLY, NULL);
    }
    return returned;
}
