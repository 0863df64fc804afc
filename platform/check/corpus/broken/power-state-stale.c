/* The state is asked for once in the life of the process.
 *
 * Rule: pwrctl.h, pwrctl_get_state: the state's number, at the time of the call.
 * Seen: the power state changed, and the call gives the old one. */
#include "platform/check/corpus/base.h"
#include "pwrctl.h"

int pwrctl_get_state(void)
{
    static int is_known;
    static int state;
    if (!is_known) {
        state = HOST(pwrctl_get_state)();
        is_known = 1;
    }
    return state;
}
