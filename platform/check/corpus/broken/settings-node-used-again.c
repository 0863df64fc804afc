/* There is one node, which a read uses for its answer as well.
 *
 * Rule: pralis.h, pralis_keynode_get_int: the value stays while the callback makes calls.
 * Seen: after a read of another key in the callback the node has that one's value. */
#include <string.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

struct keynode {
    int value;
};

static struct keynode node;
static pralis_key_changed_cb callbacks[64];
static void* data_of[64];
static char keys[64][128];
static int count;

static void on_change(keynode* changed, void* at)
{
    const long i = (long)at;
    node.value = HOST(pralis_keynode_get_int)(changed);
    if (callbacks[i] != NULL) {
        callbacks[i](&node, data_of[i]);
    }
}

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    if (count == 64 || strlen(key) >= sizeof keys[0]) {
        return -1;
    }
    callbacks[count] = cb;
    data_of[count] = user_data;
    strcpy(keys[count], key);
    const long at = count++;
    return HOST(pralis_notify_key_changed)(key, on_change, (void*)at);
}

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    int is_found = 0;
    for (int i = 0; i < count; ++i) {
        if (callbacks[i] == cb && strcmp(keys[i], key) == 0) {
            callbacks[i] = NULL;
            is_found = 1;
        }
    }
    return is_found ? 0 : -1;
}

int pralis_keynode_get_int(const keynode* changed)
{
    return changed == NULL ? -1 : changed->value;
}

int pralis_get_int(const char* key, int* value)
{
    const int result = HOST(pralis_get_int)(key, &node.value);
    if (result == 0) {
        *value = node.value;
    }
    return result;
}
