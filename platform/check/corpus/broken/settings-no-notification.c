/* Subscriptions are taken, and no change is ever told.
 *
 * Rule: pralis.h, pralis_notify_key_changed: calls "cb" after every change.
 * Seen: the key was changed, and no callback came. */
#include <stddef.h>

#include "pralis.h"

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    (void)user_data;
    return key == NULL || cb == NULL ? -1 : 0;
}

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    return key == NULL || cb == NULL ? -1 : 0;
}
