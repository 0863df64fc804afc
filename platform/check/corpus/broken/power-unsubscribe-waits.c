/* The end of a subscription waits until no callback runs, also when the callback itself ends it.
 *
 * Rule: pwrctl.h: every call may be made from any thread; the daemon ends its subscriptions in a callback
 *       of them.
 * Seen: pwrctl_unsubscribe_state_changed_event does not return when it is called in the callback. */
#include <unistd.h>

#include "platform/check/corpus/power-watch.h"

static volatile int is_running;

static void deliver(pwrctl_state_cb cb, pwrctl_state_info* info, void* user_data)
{
    is_running = 1;
    cb(info, user_data);
    is_running = 0;
}

int pwrctl_subscribe_state_changed_event(pwrctl_state_cb cb, void* user_data)
{
    return begin_watch(cb, user_data);
}

int pwrctl_unsubscribe_state_changed_event(pwrctl_state_cb cb)
{
    while (is_running) {
        usleep(1000);
    }
    return end_watch(cb);
}
