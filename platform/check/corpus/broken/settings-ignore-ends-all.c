/* Who ends his subscription to one key loses those to all other keys.
 *
 * Rule: pralis.h, pralis_ignore_key_changed: ends the subscription to the key that is named.
 * Seen: after the end of one key's subscription another key's changes are not told any more. */
#include "platform/check/corpus/key-watches.h"

static void deliver(const struct watch* watch, int value)
{
    call_back(watch, value);
}

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    return begin_watch(key, cb, user_data);
}

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    const int result = end_watch(key, cb);
    for (int i = 0; i < watch_count; ++i) {
        watches[i].is_live = 0;
    }
    return result;
}
