/* The end of a registration is answered with success, and the next one is refused.
 *
 * Rule: hangwatch.h: a registration that has ended is none any more.
 * Seen: the second registration fails. */
#include "hangwatch.h"
#include "platform/check/corpus/base.h"

int hangwatch_register_watchdog_service(int period)
{
    static int is_taken;
    const int result = is_taken ? -1 : HOST(hangwatch_register_watchdog_service)(period);
    is_taken = 1;
    return result;
}
