/* A notice to the watchdog takes six seconds.
 *
 * Rule: hangwatch.h, hangwatch_watchdog_notify: the daemon's main loop calls it every 5 seconds.
 * Seen: hangwatch_watchdog_notify keeps the main loop for longer than the time between two notices. */
#include <unistd.h>

#include "hangwatch.h"
#include "platform/check/corpus/base.h"

int hangwatch_watchdog_notify(void)
{
    for (int i = 0; i < 60; ++i) {
        usleep(100000);
    }
    return HOST(hangwatch_watchdog_notify)();
}
