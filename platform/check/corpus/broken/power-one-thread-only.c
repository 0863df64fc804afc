/* Power calls are taken from the main thread alone.
 *
 * Rule: pwrctl.h: every call may be made from any thread; locks are asked for on the update's own.
 * Seen: pwrctl_lock_state fails on another thread than the main one, and works there. */
#include <unistd.h>

#include "platform/check/corpus/base.h"
#include "pwrctl.h"

static int is_main_thread(void)
{
    return gettid() == getpid();
}

int pwrctl_lock_state(int kind, unsigned int duration_ms)
{
    return is_main_thread() ? HOST(pwrctl_lock_state)(kind, duration_ms) : -1;
}

int pwrctl_unlock_state(int kind)
{
    return is_main_thread() ? HOST(pwrctl_unlock_state)(kind) : -1;
}
