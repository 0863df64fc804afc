/* There is one power lock, whatever kind is asked for.
 *
 * Rule: pwrctl.h, pwrctl_lock_state: held until the lock of the same kind is released.
 * Seen: the release of kind 0 has released kind 2: the set may switch off in the middle of a write. */
#include "platform/check/corpus/base.h"
#include "pwrctl.h"

int pwrctl_lock_state(int kind, unsigned int duration_ms)
{
    (void)kind;
    return HOST(pwrctl_lock_state)(0, duration_ms);
}

int pwrctl_unlock_state(int kind)
{
    (void)kind;
    HOST(pwrctl_unlock_state)(0);
    return 0;
}
