/* Notices of another thread than the one that has registered are refused.
 *
 * Rule: platform/README.md: every call may come from any thread.
 * Seen: a notice of another thread fails. */
#include <pthread.h>

#include "hangwatch.h"
#include "platform/check/corpus/base.h"

static pthread_t owner;

int hangwatch_register_watchdog_service(int period)
{
    owner = pthread_self();
    return HOST(hangwatch_register_watchdog_service)(period);
}

int hangwatch_watchdog_notify(void)
{
    return pthread_equal(owner, pthread_self()) ? HOST(hangwatch_watchdog_notify)() : -1;
}
