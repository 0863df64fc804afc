// pwrctl.h: the state is /run/tv/power, a power-off /run/tv/poweroff, a lock /run/tv/lock.KIND, a reboot
// /run/tv/reboot.
#include <unistd.h>

#include "pwrctl.h"
#include "values.h"

namespace
{

template <typename Callback>
tv::Identity identityOf(Callback cb)
{
    return reinterpret_cast<tv::Identity>(cb);
}

std::string lockFile(int kind)
{
    return tv::runFile("lock." + std::to_string(kind));
}

} // namespace

int pwrctl_get_state(void)
{
    return tv::read(tv::runFile("power"));
}

int pwrctl_subscribe_state_changed_event(pwrctl_state_cb cb, void* user_data)
{
    const auto tell = [cb, user_data](int before, int now) {
        pwrctl_state_info info = {before, now};
        cb(&info, user_data);
    };
    return tv::watch(tv::runFile("power"), identityOf(cb), tell) ? 0 : -1;
}

int pwrctl_unsubscribe_state_changed_event(pwrctl_state_cb cb)
{
    return tv::ignore(tv::runFile("power"), identityOf(cb)) ? 0 : -1;
}

int pwrctl_subscribe_poweroff_event(pwrctl_poweroff_cb cb, void* user_data)
{
    const auto tell = [cb, user_data](int, int reason) {
        pwrctl_poweroff_info info = {reason};
        cb(&info, user_data);
    };
    return tv::watch(tv::runFile("poweroff"), identityOf(cb), tell) ? 0 : -1;
}

int pwrctl_unsubscribe_poweroff_event(pwrctl_poweroff_cb cb)
{
    return tv::ignore(tv::runFile("poweroff"), identityOf(cb)) ? 0 : -1;
}

// Whoever switches the set off looks at how old the file is, and at the milliseconds in it.
int pwrctl_lock_state(int kind, unsigned int duration_ms)
{
    return tv::write(lockFile(kind), static_cast<int>(duration_ms)) ? 0 : -1;
}

int pwrctl_unlock_state(int kind)
{
    return unlink(lockFile(kind).c_str());
}

int pwrctl_request_reboot(unsigned int reason)
{
    return tv::write(tv::runFile("reboot"), static_cast<int>(reason)) ? 0 : -1;
}
