// pwrctl.h: device power.

#include <algorithm>
#include <ostream>

#include "platform/fake/fake-platform.h"
#include "platform/fake/support.h"

using fakeSupport::removeSubscriber;

bool operator==(const PowerLock& left, const PowerLock& right)
{
    return left.kind == right.kind && left.durationMs == right.durationMs;
}

std::ostream& operator<<(std::ostream& out, const PowerLock& lock)
{
    return out << "kind " << lock.kind << " for " << lock.durationMs << " ms";
}

void FakePlatform::setPowerState(int value)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.powerState = value;
}

int FakePlatform::powerState() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.powerState;
}

std::vector<int> FakePlatform::changePowerState(int previous, int current)
{
    setPowerState(current);
    std::vector<Subscriber<pwrctl_state_cb>> subscribers;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        subscribers = state.powerStateSubscribers;
    }
    std::vector<int> results;
    for (const auto& subscriber : subscribers) {
        pwrctl_state_info info{previous, current};
        results.push_back(subscriber.callback(&info, subscriber.userData));
    }
    return results;
}

std::vector<int> FakePlatform::powerOff(int reason)
{
    std::vector<Subscriber<pwrctl_poweroff_cb>> subscribers;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        subscribers = state.powerOffSubscribers;
    }
    std::vector<int> results;
    for (const auto& subscriber : subscribers) {
        pwrctl_poweroff_info info{reason};
        results.push_back(subscriber.callback(&info, subscriber.userData));
    }
    return results;
}

bool FakePlatform::isSubscribedToPowerState() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return !state.powerStateSubscribers.empty();
}

bool FakePlatform::isSubscribedToPowerOff() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return !state.powerOffSubscribers.empty();
}

std::vector<PowerLock> FakePlatform::powerLocks() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.powerLocks;
}

std::vector<PowerLock> FakePlatform::heldPowerLocks() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.heldPowerLocks;
}

std::vector<unsigned int> FakePlatform::reboots() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.reboots;
}

int FakePlatform::subscribePowerState(pwrctl_state_cb callback, void* userData)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.powerStateSubscribers.push_back({callback, userData});
    return 0;
}

int FakePlatform::unsubscribePowerState(pwrctl_state_cb callback)
{
    const std::lock_guard<std::mutex> lock(mutex);
    return removeSubscriber(state.powerStateSubscribers, callback);
}

int FakePlatform::subscribePowerOff(pwrctl_poweroff_cb callback, void* userData)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.powerOffSubscribers.push_back({callback, userData});
    return 0;
}

int FakePlatform::unsubscribePowerOff(pwrctl_poweroff_cb callback)
{
    const std::lock_guard<std::mutex> lock(mutex);
    return removeSubscriber(state.powerOffSubscribers, callback);
}

int FakePlatform::lockPower(PowerLock newLock)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.powerLocks.push_back(newLock);
    state.heldPowerLocks.push_back(newLock);
    return 0;
}

int FakePlatform::unlockPower(int kind)
{
    const std::lock_guard<std::mutex> lock(mutex);
    auto& held = state.heldPowerLocks;
    const auto end =
        std::remove_if(held.begin(), held.end(), [&](const PowerLock& one) { return one.kind == kind; });
    const bool found = end != held.end();
    held.erase(end, held.end());
    return found ? 0 : -1;
}

int FakePlatform::requestReboot(unsigned int reason)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.reboots.push_back(reason);
    return 0;
}

int pwrctl_get_state(void)
{
    return fakePlatform().enter("pwrctl_get_state", "").value_or(fakePlatform().powerState());
}

int pwrctl_subscribe_state_changed_event(pwrctl_state_cb cb, void* user_data)
{
    const int scripted = fakePlatform().enter("pwrctl_subscribe_state_changed_event", "").value_or(0);
    return scripted != 0 ? scripted : fakePlatform().subscribePowerState(cb, user_data);
}

int pwrctl_unsubscribe_state_changed_event(pwrctl_state_cb cb)
{
    const int scripted = fakePlatform().enter("pwrctl_unsubscribe_state_changed_event", "").value_or(0);
    return scripted != 0 ? scripted : fakePlatform().unsubscribePowerState(cb);
}

int pwrctl_subscribe_poweroff_event(pwrctl_poweroff_cb cb, void* user_data)
{
    const int scripted = fakePlatform().enter("pwrctl_subscribe_poweroff_event", "").value_or(0);
    return scripted != 0 ? scripted : fakePlatform().subscribePowerOff(cb, user_data);
}

int pwrctl_unsubscribe_poweroff_event(pwrctl_poweroff_cb cb)
{
    const int scripted = fakePlatform().enter("pwrctl_unsubscribe_poweroff_event", "").value_or(0);
    return scripted != 0 ? scripted : fakePlatform().unsubscribePowerOff(cb);
}

int pwrctl_lock_state(int kind, unsigned int duration_ms)
{
    const std::string arguments = std::to_string(kind) + ", " + std::to_string(duration_ms);
    const int scripted = fakePlatform().enter("pwrctl_lock_state", arguments).value_or(0);
    return scripted != 0 ? scripted : fakePlatform().lockPower({kind, duration_ms});
}

int pwrctl_unlock_state(int kind)
{
    const int scripted = fakePlatform().enter("pwrctl_unlock_state", std::to_string(kind)).value_or(0);
    return scripted != 0 ? scripted : fakePlatform().unlockPower(kind);
}

int pwrctl_request_reboot(unsigned int reason)
{
    const int scripted = fakePlatform().enter("pwrctl_request_reboot", std::to_string(reason)).value_or(0);
    return scripted != 0 ? scripted : fakePlatform().requestReboot(reason);
}
