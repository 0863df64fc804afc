/* Nobody can register with the watchdog.
 *
 * Rule: hangwatch.h, hangwatch_register_watchdog_service: 0 is success.
 * Seen: the registration fails, after which the daemon ends without an update. */
#include "hangwatch.h"

int hangwatch_register_watchdog_service(int period)
{
    (void)period;
    return -1;
}
