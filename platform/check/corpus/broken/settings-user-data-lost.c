/* Callbacks get no user data.
 *
 * Rule: pralis.h, pralis_notify_key_changed: calls "cb" with "user_data".
 * Seen: the callback got another pointer than was given with the subscription. */
#include <stddef.h>

#include "platform/check/corpus/base.h"
#include "pralis.h"

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    (void)user_data;
    return HOST(pralis_notify_key_changed)(key, cb, NULL);
}
