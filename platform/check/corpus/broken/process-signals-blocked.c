/* All signals stay blocked on the thread that has registered with the watchdog.
 *
 * Rule: hangwatch.h: a call does what it is for; the daemon's main thread could not be ended by SIGTERM
 *       any more.
 * Seen: the calling thread's signal mask is another one after hangwatch_register_watchdog_service. */
#include <signal.h>
#include <stddef.h>

#include "hangwatch.h"
#include "platform/check/corpus/base.h"

int hangwatch_register_watchdog_service(int period)
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, NULL);
    return HOST(hangwatch_register_watchdog_service)(period);
}
