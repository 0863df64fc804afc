/* The subscription keeps the pointer to the key's name, and looks at it with every change.
 *
 * Rule: platform/README.md: texts that are passed in belong to the daemon and are gone when the call has
 *       returned.
 * Seen: once the name's memory is used for something else, the change is not told (or the process
 *       crashes). */
#include "platform/check/corpus/key-watches.h"

static const char* names[MOST_WATCHES];

static void deliver(const struct watch* watch, int value)
{
    if (strcmp(names[watch - watches], watch->key) == 0) {
        call_back(watch, value);
    }
}

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    names[watch_count] = key;
    return begin_watch(key, cb, user_data);
}

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    return end_watch(key, cb);
}
