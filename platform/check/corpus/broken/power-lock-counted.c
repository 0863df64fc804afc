/* A lock that is taken twice has to be released twice.
 *
 * Rule: pwrctl.h: one release ends a lock, however often it was taken.
 * Seen: taken twice and released once, the lock is held. */
#include "platform/check/corpus/base.h"
#include "pwrctl.h"

static int held[8];

int pwrctl_lock_state(int kind, unsigned int duration_ms)
{
    const int result = HOST(pwrctl_lock_state)(kind, duration_ms);
    if (result == 0 && kind >= 0 && kind < 8) {
        ++held[kind];
    }
    return result;
}

int pwrctl_unlock_state(int kind)
{
    if (kind >= 0 && kind < 8 && held[kind] > 1) {
        --held[kind];
        return 0;
    }
    const int result = HOST(pwrctl_unlock_state)(kind);
    if (kind >= 0 && kind < 8) {
        held[kind] = 0;
    }
    return result;
}
