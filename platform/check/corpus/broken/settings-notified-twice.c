/* Each change is told twice.
 *
 * Rule: pralis.h, pralis_notify_key_changed: "cb" is called after a change, once for each.
 * Seen: one change, two callbacks: an answer of the viewer would count twice. */
#include "platform/check/corpus/key-watches.h"

static void deliver(const struct watch* watch, int value)
{
    call_back(watch, value);
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
