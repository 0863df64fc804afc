/* Changes of the power state are told on a thread of the library's own.
 *
 * Rule: pwrctl.h: callbacks arrive on the thread that runs the default GLib main context.
 * Seen: the callback ran on another thread than the main loop's. */
#include <pthread.h>

#include "platform/check/corpus/power-watch.h"

struct event {
    pwrctl_state_cb cb;
    pwrctl_state_info info;
    void* user_data;
};

static void* tell(void* data)
{
    struct event* event = data;
    event->cb(&event->info, event->user_data);
    return NULL;
}

static void deliver(pwrctl_state_cb cb, pwrctl_state_info* info, void* user_data)
{
    static struct event event;
    event.cb = cb;
    event.info = *info;
    event.user_data = user_data;
    pthread_t thread;
    pthread_create(&thread, NULL, tell, &event);
    pthread_detach(thread);
}

int pwrctl_subscribe_state_changed_event(pwrctl_state_cb cb, void* user_data)
{
    return begin_watch(cb, user_data);
}

int pwrctl_unsubscribe_state_changed_event(pwrctl_state_cb cb)
{
    return end_watch(cb);
}
