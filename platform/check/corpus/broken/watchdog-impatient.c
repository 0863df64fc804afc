/* A period of 60 ends after three seconds, and the process with it.
 *
 * Rule: hangwatch.h: the unit of "period" is the platform's; the daemon registers with 60 and notifies
 *       every 5 seconds.
 * Seen: the process was killed within the first 5 seconds after the registration. */
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include "hangwatch.h"
#include "platform/check/corpus/base.h"

static volatile int period_left;

static void* count_down(void* period)
{
    period_left = *(int*)period;
    while (period_left-- > 0) {
        usleep(50000);
    }
    if (period_left > -1000000) {
        kill(getpid(), SIGKILL);
    }
    return NULL;
}

int hangwatch_register_watchdog_service(int period)
{
    static int kept;
    pthread_t thread;
    kept = period;
    pthread_create(&thread, NULL, count_down, &kept);
    pthread_detach(thread);
    return HOST(hangwatch_register_watchdog_service)(period);
}

int hangwatch_watchdog_notify(void)
{
    period_left = 60;
    return HOST(hangwatch_watchdog_notify)();
}

int hangwatch_unregister_watchdog_service(void)
{
    period_left = -2000000;
    return HOST(hangwatch_unregister_watchdog_service)();
}
