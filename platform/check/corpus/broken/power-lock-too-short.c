/* The duration of a power lock is taken as microseconds.
 *
 * Rule: pwrctl.h, pwrctl_lock_state: "duration_ms" milliseconds.
 * Seen: the lock is gone long before its time. */
#include "platform/check/corpus/base.h"
#include "pwrctl.h"

int pwrctl_lock_state(int kind, unsigned int duration_ms)
{
    return HOST(pwrctl_lock_state)(kind, duration_ms / 1000);
}
