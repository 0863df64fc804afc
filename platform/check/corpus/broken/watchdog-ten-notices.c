/* A registration is good for ten notices.
 *
 * Rule: hangwatch.h: the service notifies every five seconds, for as long as it is registered.
 * Seen: the eleventh notice fails. */
#include "hangwatch.h"
#include "platform/check/corpus/base.h"

static int notices;

int hangwatch_register_watchdog_service(int period)
{
    notices = 0;
    return HOST(hangwatch_register_watchdog_service)(period);
}

int hangwatch_watchdog_notify(void)
{
    return ++notices > 10 ? -1 : HOST(hangwatch_watchdog_notify)();
}
