/* The image is opened before it is mounted, and closed when that has succeeded.
 *
 * Rule: platform/README.md: a call that is made again and again, refused ones included, keeps no more
 * descriptors. Seen: each mount of a file that is no image leaves a descriptor. */
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

int PS_Mount(const char* command, int length, int flags, int* result)
{
    char image[512] = "";
    const int is_named = sscanf(command, "%*s %*s %511s", image) == 1;
    const int opened = is_named ? open(image, O_RDONLY | O_CLOEXEC) : -1;
    const int returned = HOST(PS_Mount)(command, length, flags, result);
    if (opened >= 0 && returned == 0 && *result == 0) {
        close(opened);
    }
    return returned;
}
