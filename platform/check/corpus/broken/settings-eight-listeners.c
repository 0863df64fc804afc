/* Changes are told to the first eight that listen.
 *
 * Rule: pralis.h: every subscription that succeeds is told of every change of its key.
 * Seen: of nine listeners the last is not told. */
#include "platform/check/corpus/key-watches.h"

static void deliver(const struct watch* watch, int value)
{
    int before = 0;
    for (const struct watch* other = watches; other < watch; ++other) {
        before += other->is_live;
    }
    if (before < 8) {
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
