/* The end of a subscription to a key that nobody has subscribed to looks into a list that there is not.
 *
 * Rule: platform/README.md: no call crashes, whatever it is asked.
 * Seen: a crash. */
#include <stdlib.h>

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
    const struct watch* known = NULL;
    pthread_mutex_lock(&watching);
    for (int i = 0; i < watch_count; ++i) {
        known = strcmp(watches[i].key, key) == 0 ? &watches[i] : known;
    }
    pthread_mutex_unlock(&watching);
    if (known == NULL) {
        abort();
    }
    return end_watch(key, cb);
}
