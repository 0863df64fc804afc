/* A file beside the directory says that somebody mounts there, and stays when that is refused.
 *
 * Rule: ps_mount.h: a refused mount leaves nothing behind.
 * Seen: after the mount of a missing image there is one file more. */
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

int PS_Mount(const char* command, int length, int flags, int* result)
{
    char lock[4096];
    const char* const directory = strrchr(command, ' ');
    snprintf(lock, sizeof lock, "%s.lock", directory == NULL ? "/tmp/mount" : directory + 1);
    FILE* const made = fopen(lock, "w");
    if (made != NULL) {
        fclose(made);
    }
    const int returned = HOST(PS_Mount)(command, length, flags, result);
    if (returned == 0 && *result == 0) {
        unlink(lock);
    }
    return returned;
}
