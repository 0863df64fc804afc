/* Who listens to the power state is told of locks as well.
 *
 * Rule: pwrctl.h: callbacks tell of a change of power and of nothing else.
 * Seen: a lock calls the callback, with the state as it is. */
#include <glib.h>

#include "platform/check/corpus/power-watch.h"

static void deliver(pwrctl_state_cb cb, pwrctl_state_info* info, void* user_data)
{
    cb(info, user_data);
}

static gboolean tell(gpointer data)
{
    pwrctl_state_info info = {0, 0};
    (void)data;
    if (watcher != NULL) {
        deliver(watcher, &info, watcher_data);
    }
    return FALSE;
}

int pwrctl_lock_state(int kind, unsigned int duration_ms)
{
    g_idle_add(tell, NULL);
    return HOST(pwrctl_lock_state)(kind, duration_ms);
}

int pwrctl_subscribe_state_changed_event(pwrctl_state_cb cb, void* user_data)
{
    return begin_watch(cb, user_data);
}

int pwrctl_unsubscribe_state_changed_event(pwrctl_state_cb cb)
{
    return end_watch(cb);
}
