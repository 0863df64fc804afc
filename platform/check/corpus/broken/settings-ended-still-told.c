/* A change is told to a copy of the list of those who listened when it came.
 *
 * Rule: pralis.h, pralis_ignore_key_changed: no callback comes after it has returned.
 * Seen: a callback ends that of another, which is called all the same. */
#include "platform/check/corpus/key-listeners.h"

static void tell_all(const char* key, keynode* node)
{
    struct listener copy[MOST_LISTENERS];
    pthread_mutex_lock(&listening);
    const int count = listener_count;
    memcpy(copy, listeners, sizeof copy);
    pthread_mutex_unlock(&listening);
    for (int i = 0; i < count; ++i) {
        if (strcmp(copy[i].key, key) == 0) {
            copy[i].cb(node, copy[i].user_data);
        }
    }
}
