/* A power lock has no end but its release.
 *
 * Rule: pwrctl.h, pwrctl_lock_state: for "duration_ms" milliseconds.
 * Seen: the lock is still held when its time is over. */
#include "platform/check/corpus/base.h"
#include "pwrctl.h"

int pwrctl_lock_state(int kind, unsigned int duration_ms)
{
    (void)duration_ms;
    return HOST(pwrctl_lock_state)(kind, 86400000);
}
