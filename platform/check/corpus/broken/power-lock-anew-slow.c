/* A lock that is held is given up, and taken anew when the service has settled.
 *
 * Rule: pwrctl.h: answers within half a second; a lock that is held may be taken anew.
 * Seen: of all calls that lock only the second one of a kind takes its time. */
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "pwrctl.h"

int pwrctl_lock_state(int kind, unsigned int duration_ms)
{
    if (HOST(pwrctl_unlock_state)(kind) == 0) {
        usleep(900000);
    }
    return HOST(pwrctl_lock_state)(kind, duration_ms);
}
