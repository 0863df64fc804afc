/* There is room for one callback of the power state: the next one takes its place.
 *
 * Rule: pwrctl.h: each subscription and its end succeeds.
 * Seen: of two subscriptions the first cannot be ended. */
#include <stddef.h>

#include "platform/check/corpus/base.h"
#include "pwrctl.h"

static pwrctl_state_cb only;

int pwrctl_subscribe_state_changed_event(pwrctl_state_cb cb, void* user_data)
{
    if (only != NULL) {
        HOST(pwrctl_unsubscribe_state_changed_event)(only);
    }
    only = cb;
    return HOST(pwrctl_subscribe_state_changed_event)(cb, user_data);
}

int pwrctl_unsubscribe_state_changed_event(pwrctl_state_cb cb)
{
    if (cb == NULL || cb != only) {
        return -1;
    }
    only = NULL;
    return HOST(pwrctl_unsubscribe_state_changed_event)(cb);
}
