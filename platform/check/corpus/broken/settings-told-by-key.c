/* Changes are gathered for a moment and told key by key.
 *
 * Rule: pralis.h: changes are told in their order, those of several keys included.
 * Seen: two keys are written in turn, and all changes of the one are told before those of the other. */
#include <glib.h>

#include "platform/check/corpus/key-watches.h"

enum { MOST_WAITING = 256 };

static struct {
    const struct watch* watch;
    int value;
} waiting[MOST_WAITING];
static int waiting_count;

static gboolean tell(gpointer nothing)
{
    while (waiting_count > 0) {
        int first = 0;
        for (int i = 1; i < waiting_count; ++i) {
            first = strcmp(waiting[i].watch->key, waiting[first].watch->key) < 0 ? i : first;
        }
        const struct watch* const watch = waiting[first].watch;
        const int value = waiting[first].value;
        --waiting_count;
        memmove(&waiting[first], &waiting[first + 1], (size_t)(waiting_count - first) * sizeof waiting[0]);
        if (watch->is_live) {
            call_back(watch, value);
        }
    }
    (void)nothing;
    return G_SOURCE_REMOVE;
}

static void deliver(const struct watch* watch, int value)
{
    if (waiting_count == 0) {
        g_timeout_add(80, tell, NULL);
    }
    if (waiting_count < MOST_WAITING) {
        waiting[waiting_count].watch = watch;
        waiting[waiting_count++].value = value;
    }
}

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    return begin_watch(key, cb, user_data);
}

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    return end_watch(key, cb);
}
