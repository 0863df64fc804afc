/* Who listens is looked for by as much of the changed key's name as his own has.
 *
 * Rule: pralis.h, pralis_notify_key_changed: after every change of "key", and of no other key.
 * Seen: a change is told to who listens to the beginning of the key's name. */
#include <glib.h>

#include "platform/check/corpus/key-watches.h"

struct change {
    const struct watch* watch;
    int value;
};

static gboolean tell(gpointer data)
{
    const struct change* const change = data;
    if (change->watch->is_live) {
        call_back(change->watch, change->value);
    }
    return G_SOURCE_REMOVE;
}

static void deliver(const struct watch* watch, int value)
{
    call_back(watch, value);
}

int pralis_set_int(const char* key, int value)
{
    const int result = HOST(pralis_set_int)(key, value);
    for (int i = 0; result == 0 && i < watch_count; ++i) {
        const size_t length = strlen(watches[i].key);
        if (watches[i].is_live && length < strlen(key) && strncmp(watches[i].key, key, length) == 0) {
            struct change* const change = g_new(struct change, 1);
            change->watch = &watches[i];
            change->value = value;
            g_idle_add_full(G_PRIORITY_DEFAULT, tell, change, g_free);
        }
    }
    return result;
}

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    return begin_watch(key, cb, user_data);
}

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    return end_watch(key, cb);
}
