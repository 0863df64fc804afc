/* A change is told along the list as it is, which may have grown meanwhile.
 *
 * Rule: pralis.h: a subscription alone is no change.
 * Seen: a subscription that a callback makes is told the change that the callback was told. */
#include "platform/check/corpus/key-listeners.h"

static void tell_all(const char* key, keynode* node)
{
    int i = 0;
    while (i < listener_count) {
        const struct listener one = listeners[i];
        if (strcmp(one.key, key) == 0) {
            one.cb(node, one.user_data);
        }
        i += i < listener_count && listeners[i].cb == one.cb; /* else another one has taken its place */
    }
}
