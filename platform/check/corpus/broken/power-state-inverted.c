/* 1 stands for a set that is on.
 *
 * Rule: pwrctl.h, pwrctl_get_state: 0 = normal (switched on).
 * Seen: the set is on, and the state is 1: no update would be offered. */
#include "platform/check/corpus/base.h"
#include "pwrctl.h"

int pwrctl_get_state(void)
{
    const int state = HOST(pwrctl_get_state)();
    return state < 0 ? state : state == 0;
}
