/* The call returns with success before the image is mounted, which takes half a second.
 *
 * Rule: ps_mount.h, PS_Mount: the call has succeeded means that the image is mounted.
 * Seen: the call succeeded, and the directory is empty. */
#include <pthread.h>
#include <stdio.h>
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "ps_mount.h"

static char wanted[1024];

static void* mount_it(void* nothing)
{
    int result = 0;
    usleep(500000);
    HOST(PS_Mount)(wanted, sizeof wanted, 0, &result);
    return nothing;
}

int PS_Mount(const char* command, int length, int flags, int* result)
{
    (void)flags;
    pthread_t thread;
    snprintf(wanted, sizeof wanted, "%.*s", length, command);
    *result = 0;
    if (pthread_create(&thread, NULL, mount_it, NULL) != 0) {
        return -1;
    }
    pthread_detach(thread);
    return 0;
}
