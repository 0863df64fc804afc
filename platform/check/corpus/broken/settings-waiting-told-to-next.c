/* What waits to be told is told by key and callback, also to a subscription that is newer than the change.
 *
 * Rule: pralis.h: none comes after the end of the subscription, nor to a later one.
 * Seen: a change, the end, a new subscription: the change is told. */
#include <glib.h>
#include <stdlib.h>

#include "platform/check/corpus/key-watches.h"

struct waiting {
    char key[128];
    pralis_key_changed_cb cb;
    int value;
};

static gboolean tell(gpointer data)
{
    struct waiting* change = data;
    for (int i = 0; i < watch_count; ++i) {
        if (watches[i].is_live && watches[i].cb == change->cb && strcmp(watches[i].key, change->key) == 0) {
            call_back(&watches[i], change->value);
            break;
        }
    }
    free(change);
    return FALSE;
}

static void deliver(const struct watch* watch, int value)
{
    struct waiting* change = calloc(1, sizeof *change);
    memcpy(change->key, watch->key, sizeof change->key);
    change->cb = watch->cb;
    change->value = value;
    g_timeout_add(100, tell, change);
}

int pralis_set_int(const char* key, int value)
{
    const int result = HOST(pralis_set_int)(key, value);
    for (int i = 0; i < watch_count; ++i) { /* its own change goes to the queue at once */
        if (watches[i].is_live && strcmp(watches[i].key, key) == 0) {
            deliver(&watches[i], value);
        }
    }
    return result;
}

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    return new_watch(key, cb, user_data) == NULL ? -1 : 0;
}

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    int is_found = 0;
    for (int i = 0; i < watch_count; ++i) {
        struct watch* watch = &watches[i];
        if (watch->is_live && watch->cb == cb && strcmp(watch->key, key) == 0) {
            watch->is_live = 0;
            is_found = 1;
        }
    }
    return is_found ? 0 : -1;
}
