/* The library watches by itself, and only the first notice gives the service more time.
 *
 * Rule: hangwatch.h: a service that notifies in time is left alone.
 * Seen: eight seconds after the first notice the process is ended, although there were others. */
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include "hangwatch.h"
#include "platform/check/corpus/base.h"

static volatile time_t latest;
static volatile int is_registered;
static int has_noticed;

static time_t now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec;
}

static void* watch(void* nothing)
{
    while (!is_registered || now() - latest < 8) {
        usleep(200000);
    }
    kill(getpid(), SIGKILL);
    return nothing;
}

int hangwatch_register_watchdog_service(int period)
{
    static int is_watched;
    latest = now();
    has_noticed = 0;
    is_registered = 1;
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
    latest = has_noticed ? latest : now();
    has_noticed = 1;
    return HOST(hangwatch_watchdog_notify)();
}

int hangwatch_unregister_watchdog_service(void)
{
    is_registered = 0;
    return HOST(hangwatch_unregister_watchdog_service)();
}
