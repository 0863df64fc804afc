/* A subscription ends by itself after fifty changes.
 *
 * Rule: pralis.h: the callback is called after every change, until its subscription is ended.
 * Seen: of sixty changes fifty are told. */
#include "platform/check/corpus/key-watches.h"

static void deliver(const struct watch* watch, int value)
{
    static int told;
    if (++told <= 50) {
        call_back(watch, value);
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
