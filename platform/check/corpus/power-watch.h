/* One subscription to changes of the power state, kept by the platform itself: the sound one tells it of
 * every change, and its own deliver() tells whoever has subscribed. */
#ifndef PLATFORM_CHECK_CORPUS_POWER_WATCH_H
#define PLATFORM_CHECK_CORPUS_POWER_WATCH_H

#include <stddef.h>

#include "platform/check/corpus/base.h"
#include "pwrctl.h"

static pwrctl_state_cb watcher;
static void* watcher_data;

/* On the main loop's thread. */
static void deliver(pwrctl_state_cb cb, pwrctl_state_info* info, void* user_data);

static inline int on_state(pwrctl_state_info* info, void* user_data)
{
    (void)user_data;
    if (watcher != NULL) {
        deliver(watcher, info, watcher_data);
    }
    return 0;
}

static inline int begin_watch(pwrctl_state_cb cb, void* user_data)
{
    watcher = cb;
    watcher_data = user_data;
    return cb == NULL ? -1 : HOST(pwrctl_subscribe_state_changed_event)(on_state, NULL);
}

static inline int end_watch(pwrctl_state_cb cb)
{
    if (cb == NULL || cb != watcher) {
        return -1;
    }
    watcher = NULL;
    return HOST(pwrctl_unsubscribe_state_changed_event)(on_state);
}

#endif
