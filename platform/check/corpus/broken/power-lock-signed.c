/* The duration of a lock goes through a number with a sign.
 *
 * Rule: pwrctl.h: keeps the set from switching off for any number of milliseconds.
 * Seen: a lock of 2^31 ms or more is over at once. */
#include "platform/check/corpus/base.h"
#include "pwrctl.h"

int pwrctl_lock_state(int kind, unsigned int duration_ms)
{
    const int duration = (int)duration_ms;
    return HOST(pwrctl_lock_state)(kind, duration > 0 ? (unsigned int)duration : 1);
}
