/* Unusual but right: changes go to a thread of the library's own first, and from there, a fifth of a
 * second later, to the main loop, for which a node of the library's own is used.
 *
 * Rule: pralis.h: callbacks arrive on the main loop's thread, after every change, until the subscription
 *       is ended. When, and where nodes come from, is not said.
 */
#include <glib.h>
#include <stdlib.h>
#include <unistd.h>

#include "platform/check/corpus/key-watches.h"

struct event {
    struct event* next;
    const struct watch* watch;
    int value;
    gint64 due; // microseconds
};

static GAsyncQueue* events;

static gboolean tell(gpointer data)
{
    const struct event* event = data;
    if (event->watch->is_live) {
        call_back(event->watch, event->value);
    }
    return G_SOURCE_REMOVE;
}

static void* hand_over(void* nothing)
{
    for (;;) {
        struct event* event = g_async_queue_pop(events);
        const gint64 left = event->due - g_get_monotonic_time();
        usleep(left > 0 ? (useconds_t)left : 0);
        g_idle_add_full(G_PRIORITY_DEFAULT, tell, event, free);
    }
    return nothing;
}

static void start(void)
{
    pthread_t thread;
    events = g_async_queue_new();
    pthread_create(&thread, NULL, hand_over, NULL);
    pthread_detach(thread);
}

static void deliver(const struct watch* watch, int value)
{
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, start);
    struct event* event = calloc(1, sizeof *event);
    event->watch = watch;
    event->value = value;
    event->due = g_get_monotonic_time() + 200000;
    g_async_queue_push(events, event);
}

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    return begin_watch(key, cb, user_data);
}

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    return end_watch(key, cb);
}
