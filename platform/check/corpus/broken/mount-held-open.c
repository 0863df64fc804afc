/* The library keeps the mounted directory open, so that it is busy for ever.
 *
 * Rule: ps_mount.h, PS_Umount: what was mounted is unmounted when its user has closed all of it.
 * Seen: nobody uses the mounted image, and it cannot be unmounted. */
#include <fcntl.h>
#include <stdio.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

int PS_Mount(const char* command, int length, int flags, int* result)
{
    const int returned = HOST(PS_Mount)(command, length, flags, result);
    char directory[256];
    if (returned == 0 && *result == 0 && sscanf(command, "-o %*s %*s %255s", directory) == 1) {
        open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    return returned;
}
