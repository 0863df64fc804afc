/* The numbers of subscriptions to the power state are never given again, and there are forty of them.
 *
 * Rule: pwrctl.h: each subscription and its end succeeds, also after an earlier one was ended.
 * Seen: the one-and-fortieth subscription of a process is refused. */
#include <stdatomic.h>

#include "platform/check/corpus/base.h"
#include "pwrctl.h"

int pwrctl_subscribe_state_changed_event(pwrctl_state_cb cb, void* user_data)
{
    static atomic_int number;
    return atomic_fetch_add(&number, 1) < 40 ? HOST(pwrctl_subscribe_state_changed_event)(cb, user_data) : -1;
}
