/* Each change is told on a thread of the library's own.
 *
 * Rule: pralis.h: change callbacks arrive on the thread that runs the default GLib main context.
 * Seen: the callback ran on another thread than the main loop's. */
#include <stdlib.h>

#include "platform/check/corpus/key-watches.h"

struct event {
    const struct watch* watch;
    int value;
};

static void* tell(void* data)
{
    const struct event event = *(struct event*)data;
    free(data);
    call_back(event.watch, event.value);
    return NULL;
}

static void deliver(const struct watch* watch, int value)
{
    pthread_t thread;
    struct event* event = malloc(sizeof *event);
    event->watch = watch;
    event->value = value;
    pthread_create(&thread, NULL, tell, event);
    pthread_detach(thread);
}

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    return begin_watch(key, cb, user_data);
}

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    return end_watch(key, cb);
}
