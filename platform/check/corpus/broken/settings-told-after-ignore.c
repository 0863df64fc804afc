/* The end of a subscription is answered with success, and changes are told on.
 *
 * Rule: pralis.h, pralis_notify_key_changed: until pralis_ignore_key_changed; none comes after it has
 *       returned.
 * Seen: a callback came after the subscription had ended. */
#include <stddef.h>

#include "pralis.h"

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    return key == NULL || cb == NULL ? -1 : 0;
}
