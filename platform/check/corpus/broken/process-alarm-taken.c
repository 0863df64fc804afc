/* The state is asked for under an alarm of the library's own, which is taken back.
 *
 * Rule: platform/README.md: timers of the process are the daemon's and stay as they are.
 * Seen: an alarm of the caller's is gone. */
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "pwrctl.h"

int pwrctl_get_state(void)
{
    alarm(30);
    const int state = HOST(pwrctl_get_state)();
    alarm(0);
    return state;
}
