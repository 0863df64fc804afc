/* An image's content is copied into memory, and mounted so that it can be written to.
 *
 * Rule: ps_mount.h, PS_Mount: carries out the arguments of mount, "ro" among them.
 * Seen: a file can be made in the mounted image. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

static int copy(const char* from, const char* to)
{
    char command[640];
    snprintf(command, sizeof command, "cp -a '%s/.' '%s'", from, to);
    return system(command);
}

int PS_Mount(const char* command, int length, int flags, int* result)
{
    const int returned = HOST(PS_Mount)(command, length, flags, result);
    char directory[256];
    char room[] = "/tmp/mount-XXXXXX";
    if (returned != 0 || *result != 0 || sscanf(command, "-o %*s %*s %255s", directory) != 1 ||
        mkdtemp(room) == NULL) {
        return returned;
    }
    int ignored = 0;
    if (mount("tmpfs", room, "tmpfs", 0, NULL) == 0 && copy(directory, room) == 0) {
        HOST(PS_Umount)(directory, (int)strlen(directory), 0, &ignored);
        mount(room, directory, NULL, MS_MOVE, NULL);
    }
    rmdir(room);
    return returned;
}
