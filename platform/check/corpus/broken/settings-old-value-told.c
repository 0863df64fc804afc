/* The callback gets the value that the key had before.
 *
 * Rule: pralis.h, pralis_keynode_get_int: the new value.
 * Seen: the callback was told another value than the one that was written. */
#include "platform/check/corpus/key-watches.h"

static int latest[MOST_WATCHES];

static void deliver(const struct watch* watch, int value)
{
    int* before = &latest[watch - watches];
    call_back(watch, *before);
    *before = value;
}

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    const int result = begin_watch(key, cb, user_data);
    if (result == 0) {
        HOST(pralis_get_int)(key, &latest[watch_count - 1]);
    }
    return result;
}

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    return end_watch(key, cb);
}
