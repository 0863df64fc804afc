/* A lock of 0 ms is refused.
 *
 * Rule: pwrctl.h, pwrctl_lock_state: for so many milliseconds, any number of them.
 * Seen: the result of such a lock is negative. */
#include "platform/check/corpus/base.h"
#include "pwrctl.h"

int pwrctl_lock_state(int kind, unsigned int duration_ms)
{
    return duration_ms == 0 ? -1 : HOST(pwrctl_lock_state)(kind, duration_ms);
}
