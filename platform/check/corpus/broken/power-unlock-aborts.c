/* The release of a lock that is not held ends the process.
 *
 * Rule: pwrctl.h: a failure is a negative result; the daemon releases its lock at the end whether it has
 *       one or not.
 * Seen: the process was ended by SIGABRT in pwrctl_unlock_state. */
#include <stdlib.h>

#include "platform/check/corpus/base.h"
#include "pwrctl.h"

int pwrctl_unlock_state(int kind)
{
    const int result = HOST(pwrctl_unlock_state)(kind);
    if (result != 0) {
        abort();
    }
    return result;
}
