/* The call returns when the lock's time is over.
 *
 * Rule: pwrctl.h, pwrctl_lock_state keeps the set on meanwhile; platform/README.md: it is also asked on
 *       the main loop.
 * Seen: pwrctl_lock_state takes as long as the lock. */
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "pwrctl.h"

int pwrctl_lock_state(int kind, unsigned int duration_ms)
{
    const int result = HOST(pwrctl_lock_state)(kind, duration_ms);
    for (unsigned int tenth = 0; tenth < duration_ms / 100; ++tenth) {
        usleep(100000);
    }
    return result;
}
