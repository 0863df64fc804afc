/* A lock that is held is only ever made longer.
 *
 * Rule: pwrctl.h: a lock that is held may be taken anew, for the new duration.
 * Seen: a lock of a minute, taken anew for 0.3 s, is held after a second. */
#include <time.h>

#include "platform/check/corpus/base.h"
#include "pwrctl.h"

static long long ends[8];

static long long now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000LL + time.tv_nsec / 1000000;
}

int pwrctl_lock_state(int kind, unsigned int duration_ms)
{
    const long long end = now() + duration_ms;
    if (kind >= 0 && kind < 8 && end < ends[kind]) {
        return 0;
    }
    const int result = HOST(pwrctl_lock_state)(kind, duration_ms);
    if (result == 0 && kind >= 0 && kind < 8) {
        ends[kind] = end;
    }
    return result;
}

int pwrctl_unlock_state(int kind)
{
    if (kind >= 0 && kind < 8) {
        ends[kind] = 0;
    }
    return HOST(pwrctl_unlock_state)(kind);
}
