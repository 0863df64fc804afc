/* The store is locked while a callback runs, for all threads but the one that it runs on.
 *
 * Rule: pralis.h: calls of other threads do not wait for a callback's end.
 * Seen: another thread reads a key while a callback takes its time, and gets its answer when that has
 * returned. */
#include "platform/check/corpus/key-watches.h"

static pthread_mutex_t store = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

static void deliver(const struct watch* watch, int value)
{
    pthread_mutex_lock(&store);
    call_back(watch, value);
    pthread_mutex_unlock(&store);
}

int pralis_get_int(const char* key, int* value)
{
    pthread_mutex_lock(&store);
    const int result = HOST(pralis_get_int)(key, value);
    pthread_mutex_unlock(&store);
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
