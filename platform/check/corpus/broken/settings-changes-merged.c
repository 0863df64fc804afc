/* Changes are collected for a tenth of a second, and the last of them is told.
 *
 * Rule: pralis.h, pralis_notify_key_changed: calls "cb" after every change.
 * Seen: three changes shortly after another, and one callback: an answer of the viewer would be lost. */
#include <glib.h>

#include "platform/check/corpus/key-watches.h"

static int latest[MOST_WATCHES];
static int is_waiting[MOST_WATCHES];

static gboolean tell(gpointer data)
{
    const struct watch* watch = data;
    is_waiting[watch - watches] = 0;
    if (watch->is_live) {
        call_back(watch, latest[watch - watches]);
    }
    return G_SOURCE_REMOVE;
}

static void deliver(const struct watch* watch, int value)
{
    latest[watch - watches] = value;
    if (!is_waiting[watch - watches]) {
        is_waiting[watch - watches] = 1;
        g_timeout_add(100, tell, (gpointer)watch);
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
