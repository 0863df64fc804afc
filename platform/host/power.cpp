// pwrctl.h: device power.

#include "platform/host/bus.h"
#include "platform/host/exported.h"
#include "platform/host/subscriptions.h"
#include "pwrctl.h"

namespace
{

constexpr platform::EventKind kStateChanged = {"StateChanged", "SubscribeState", "UnsubscribeState"};
constexpr platform::EventKind kPowerOff = {"PowerOff", "SubscribePowerOff", "UnsubscribePowerOff"};

template <typename Callback>
platform::CallbackIdentity identityOf(Callback cb)
{
    return reinterpret_cast<platform::CallbackIdentity>(cb);
}

} // namespace

PLATFORM_EXPORT int pwrctl_get_state(void)
{
    return platform::callForResult("GetState");
}

PLATFORM_EXPORT int pwrctl_subscribe_state_changed_event(pwrctl_state_cb cb, void* user_data)
{
    if (cb == nullptr) {
        return platform::kFailure;
    }
    return platform::subscribe(kStateChanged, nullptr, identityOf(cb), [cb, user_data](GVariant* parameters) {
        pwrctl_state_info info{};
        g_variant_get(parameters, "(ii)", &info.prev_state, &info.cur_state);
        cb(&info, user_data);
    });
}

PLATFORM_EXPORT int pwrctl_unsubscribe_state_changed_event(pwrctl_state_cb cb)
{
    return platform::unsubscribe(kStateChanged, nullptr, identityOf(cb));
}

PLATFORM_EXPORT int pwrctl_subscribe_poweroff_event(pwrctl_poweroff_cb cb, void* user_data)
{
    if (cb == nullptr) {
        return platform::kFailure;
    }
    return platform::subscribe(kPowerOff, nullptr, identityOf(cb), [cb, user_data](GVariant* parameters) {
        pwrctl_poweroff_info info{};
        g_variant_get(parameters, "(i)", &info.reason);
        cb(&info, user_data);
    });
}

PLATFORM_EXPORT int pwrctl_unsubscribe_poweroff_event(pwrctl_poweroff_cb cb)
{
    return platform::unsubscribe(kPowerOff, nullptr, identityOf(cb));
}

PLATFORM_EXPORT int pwrctl_lock_state(int kind, unsigned int duration_ms)
{
    return platform::callForResult("LockState", g_variant_new("(iu)", kind, duration_ms));
}

PLATFORM_EXPORT int pwrctl_unlock_state(int kind)
{
    return platform::callForResult("UnlockState", g_variant_new("(i)", kind));
}

PLATFORM_EXPORT int pwrctl_request_reboot(unsigned int reason)
{
    return platform::callForResult("RequestReboot", g_variant_new("(u)", reason));
}
