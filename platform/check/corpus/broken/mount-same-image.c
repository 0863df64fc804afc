/* The image that was mounted first is mounted again, whatever image is named.
 *
 * Rule: ps_mount.h, PS_Mount: the image that the arguments name.
 * Seen: the second image's mount shows the first one's files. */
#include <stdio.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

int PS_Mount(const char* command, int length, int flags, int* result)
{
    static char first[256];
    char options[128];
    char image[256];
    char directory[256];
    char other[1024];
    if (sscanf(command, "-o %127s %255s %255s", options, image, directory) != 3) {
        return HOST(PS_Mount)(command, length, flags, result);
    }
    snprintf(other, sizeof other, "-o %s %s %s", options, first[0] == '\0' ? image : first, directory);
    const int returned = HOST(PS_Mount)(other, sizeof other, flags, result);
    if (returned == 0 && *result == 0 && first[0] == '\0') {
        snprintf(first, sizeof first, "%s", image);
    }
    return returned;
}
