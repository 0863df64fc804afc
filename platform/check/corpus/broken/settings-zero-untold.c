/* A change to 0 is taken for none.
 *
 * Rule: pralis.h: the callback is called after every change, to any int.
 * Seen: of a change to 0 nothing is told. */
#include "platform/check/corpus/key-watches.h"

static void deliver(const struct watch* watch, int value)
{
    if (value != 0) {
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
