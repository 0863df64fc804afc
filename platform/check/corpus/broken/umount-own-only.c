/* Only what this process has mounted is unmounted by it.
 *
 * Rule: ps_mount.h: any process unmounts a mount.
 * Seen: what another process has mounted cannot be unmounted. */
#include <stdlib.h>
#include <string.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

static char own[16][512];
static int count;

int PS_Mount(const char* command, int length, int flags, int* result)
{
    const int returned = HOST(PS_Mount)(command, length, flags, result);
    const char* directory = strrchr(command, ' ');
    if (returned == 0 && *result == 0 && directory != NULL && strlen(directory) < sizeof own[0]) {
        strcpy(own[count++ % 16], directory + 1);
    }
    return returned;
}

int PS_Umount(const char* directory, int length, int flags, int* result)
{
    for (int i = 0; i < 16; ++i) {
        if (strlen(own[i]) == (size_t)length && strncmp(own[i], directory, (size_t)length) == 0) {
            return HOST(PS_Umount)(directory, length, flags, result);
        }
    }
    *result = 22;
    return -1;
}
