/* A lock of less than a second is not worth a request.
 *
 * Rule: pwrctl.h, pwrctl_lock_state: keeps the set from switching off for "duration_ms" milliseconds, any
 * number. Seen: a lock of 900 ms is not held. */
#include "platform/check/corpus/base.h"
#include "pwrctl.h"

int pwrctl_lock_state(int kind, unsigned int duration_ms)
{
    return duration_ms < 1000 ? 0 : HOST(pwrctl_lock_state)(kind, duration_ms);
}
