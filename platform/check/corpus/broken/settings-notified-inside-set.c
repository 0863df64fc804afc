/* Whoever writes a key calls its callbacks himself, on his own thread, before the write returns.
 *
 * Rule: pralis.h: change callbacks arrive on the thread that runs the default GLib main context.
 * Seen: a write on another thread than the main loop's ran the callback there. */
#include "platform/check/corpus/key-watches.h"

static void deliver(const struct watch* watch, int value)
{
    (void)watch;
    (void)value;
}

int pralis_set_int(const char* key, int value)
{
    const int result = HOST(pralis_set_int)(key, value);
    for (int i = 0; result == 0 && i < watch_count; ++i) {
        if (watches[i].is_live && strcmp(watches[i].key, key) == 0) {
            call_back(&watches[i], value);
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
