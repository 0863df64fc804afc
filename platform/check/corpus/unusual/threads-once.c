/* Unusual but right: the first call of the process starts three threads, opens six descriptors and takes
 * two megabytes, and keeps them.
 *
 * Rule: what is made once does not grow.
 */
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"
#include "pwrctl.h"

static void* serve(void* nothing)
{
    for (;;) {
        pause();
    }
    return nothing;
}

static void start(void)
{
    static char* room;
    room = malloc(2097152);
    memset(room, 1, 2097152);
    for (int i = 0; i < 3; ++i) {
        pthread_t thread;
        pthread_create(&thread, NULL, serve, NULL);
        pthread_detach(thread);
        open("/dev/null", O_RDONLY | O_CLOEXEC);
        open("/dev/zero", O_RDONLY | O_CLOEXEC);
    }
}

static pthread_once_t once = PTHREAD_ONCE_INIT;

int pralis_get_int(const char* key, int* value)
{
    pthread_once(&once, start);
    return HOST(pralis_get_int)(key, value);
}

int pwrctl_get_state(void)
{
    pthread_once(&once, start);
    return HOST(pwrctl_get_state)();
}
