/* What is told of a change is what the key has when it is told.
 *
 * Rule: pralis.h, pralis_keynode_get_int: the new value is that of the change that is told, also when the key
 * has changed again since. Seen: three changes shortly after another are told with the last one's value. */
#include "platform/check/corpus/key-watches.h"

static void deliver(const struct watch* watch, int value)
{
    HOST(pralis_get_int)(watch->key, &value);
    call_back(watch, value);
}

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    return begin_watch(key, cb, user_data);
}

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    return end_watch(key, cb);
}
