/* Changes are collected for a moment and told one after the other; whether the subscription still stands is
 * looked at once.
 *
 * Rule: pralis.h, pralis_ignore_key_changed: no callback comes after it has returned, whatever has changed
 * before. Seen: a callback that ends its own subscription is called again with the changes that have waited.
 */
#include <glib.h>

#include "platform/check/corpus/key-watches.h"

enum { MOST_WAITING = 32 };

static int waiting[MOST_WATCHES][MOST_WAITING];
static int waiting_count[MOST_WATCHES];

static gboolean tell(gpointer data)
{
    const struct watch* watch = data;
    const long index = watch - watches;
    if (watch->is_live) {
        for (int i = 0; i < waiting_count[index]; ++i) {
            call_back(watch, waiting[index][i]);
        }
    }
    waiting_count[index] = 0;
    return G_SOURCE_REMOVE;
}

static void deliver(const struct watch* watch, int value)
{
    const long index = watch - watches;
    if (waiting_count[index] == 0) {
        g_timeout_add(50, tell, (gpointer)watch);
    }
    if (waiting_count[index] < MOST_WAITING) {
        waiting[index][waiting_count[index]++] = value;
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
