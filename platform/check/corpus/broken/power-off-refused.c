/* Nobody can subscribe to the power-off event.
 *
 * Rule: pwrctl.h, pwrctl_subscribe_poweroff_event: 0 is success.
 * Seen: the subscription to power-off fails: modules would not hear of it. */
#include "pwrctl.h"

int pwrctl_subscribe_poweroff_event(pwrctl_poweroff_cb cb, void* user_data)
{
    (void)cb;
    (void)user_data;
    return -1;
}
