/* A callback that returns 0 is not wanted any more, as if it were a timer of GLib.
 *
 * Rule: pwrctl.h, pwrctl_state_cb: 0 is success; changes are told until the subscription is ended.
 * Seen: the second change of power was not told. */
#include "platform/check/corpus/power-watch.h"

static void deliver(pwrctl_state_cb cb, pwrctl_state_info* info, void* user_data)
{
    if (cb(info, user_data) == 0) {
        end_watch(cb);
    }
}

int pwrctl_subscribe_state_changed_event(pwrctl_state_cb cb, void* user_data)
{
    return begin_watch(cb, user_data);
}

int pwrctl_unsubscribe_state_changed_event(pwrctl_state_cb cb)
{
    return end_watch(cb);
}
