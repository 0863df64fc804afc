/* The callback gets the new state as the previous one, and the previous as the new.
 *
 * Rule: pwrctl.h, pwrctl_state_info: prev_state is the state before the change, cur_state the one since
 *       then.
 * Seen: the change from 0 to 2 was told as one from 2 to 0. */
#include "platform/check/corpus/power-watch.h"

static void deliver(pwrctl_state_cb cb, pwrctl_state_info* info, void* user_data)
{
    pwrctl_state_info swapped = {info->cur_state, info->prev_state};
    cb(&swapped, user_data);
}

int pwrctl_subscribe_state_changed_event(pwrctl_state_cb cb, void* user_data)
{
    return begin_watch(cb, user_data);
}

int pwrctl_unsubscribe_state_changed_event(pwrctl_state_cb cb)
{
    return end_watch(cb);
}
