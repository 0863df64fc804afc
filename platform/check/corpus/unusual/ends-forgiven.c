/* Unusual but right: the end of a lock, a subscription or a registration that there is none of is a
 * success.
 *
 * Rule: pwrctl.h, pralis.h and hangwatch.h do not say what it is. Afterwards there is none, as was asked
 *       for.
 */
#include "hangwatch.h"
#include "platform/check/corpus/base.h"
#include "pralis.h"
#include "pwrctl.h"

int pwrctl_unlock_state(int kind)
{
    HOST(pwrctl_unlock_state)(kind);
    return 0;
}

int pwrctl_unsubscribe_state_changed_event(pwrctl_state_cb cb)
{
    HOST(pwrctl_unsubscribe_state_changed_event)(cb);
    return 0;
}

int pwrctl_unsubscribe_poweroff_event(pwrctl_poweroff_cb cb)
{
    HOST(pwrctl_unsubscribe_poweroff_event)(cb);
    return 0;
}

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    HOST(pralis_ignore_key_changed)(key, cb);
    return 0;
}

int hangwatch_unregister_watchdog_service(void)
{
    HOST(hangwatch_unregister_watchdog_service)();
    return 0;
}
