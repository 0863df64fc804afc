/* The library watches by itself, and goes on with it after the end of the registration.
 *
 * Rule: hangwatch.h: a service that has unregistered is left alone.
 * Seen: twelve seconds after the last notice the process is ended. */
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "hangwatch.h"
#include "platform/check/corpus/base.h"

static volatile time_t latest;

static time_t now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec;
}

static void* watch(void* nothing)
{
    while (now() - latest < 12) {
        usleep(200000);
    }
    kill(getpid(), SIGKILL);
    return nothing;
}

int hangwatch_register_watchdog_service(int period)
{
    static int is_watched;
    latest = now();
    if (!is_watched) {
        pthread_t thread;
        is_watched = 1;
        pthread_create(&thread, NULL, watch, NULL);
        pthread_detach(thread);
    }
    return HOST(hangwatch_register_watchdog_service)(period);
}

int hangwatch_watchdog_notify(void)
{
    latest = now();
    return HOST(hangwatch_watchdog_notify)();
}
