// sysprop.h, flagpost.h and hangwatch.h: system information, boot-event flags, the deadlock watchdog.

#include <cstring>

#include "flagpost.h"
#include "hangwatch.h"
#include "platform/fake/fake-platform.h"
#include "platform/fake/support.h"
#include "sysprop.h"

using fakeSupport::orEmpty;
using fakeSupport::quoted;

void FakePlatform::setSystemText(int key, const std::string& value)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.systemTexts[key] = value;
}

std::optional<std::string> FakePlatform::systemText(int key) const
{
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = state.systemTexts.find(key);
    return found != state.systemTexts.end() ? std::optional<std::string>(found->second) : std::nullopt;
}

bool FakePlatform::isFlagRaised(const std::string& flag) const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.flags.count(flag) != 0;
}

void FakePlatform::setFlag(const std::string& flag, bool raised)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (raised) {
        state.flags.insert(flag);
    } else {
        state.flags.erase(flag);
    }
}

std::optional<int> FakePlatform::watchdogPeriod() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.watchdogPeriod;
}

int FakePlatform::setWatchdog(std::optional<int> period)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.watchdogPeriod = period;
    return 0;
}

int sysprop_get_value_string(int key, char** value)
{
    const int scripted = fakePlatform().enter("sysprop_get_value_string", std::to_string(key)).value_or(0);
    const std::optional<std::string> text = fakePlatform().systemText(key);
    if (scripted != 0 || !text) {
        return scripted != 0 ? scripted : -1;
    }
    *value = strdup(text->c_str());
    return 0;
}

int FlagpostEventDone(const char* flag)
{
    const int scripted = fakePlatform().enter("FlagpostEventDone", quoted(flag), orEmpty(flag)).value_or(0);
    if (scripted == 0) {
        fakePlatform().setFlag(orEmpty(flag), true);
    }
    return scripted;
}

int FlagpostIsDone(const char* flag)
{
    const std::optional<int> scripted = fakePlatform().enter("FlagpostIsDone", quoted(flag), orEmpty(flag));
    return scripted.value_or(fakePlatform().isFlagRaised(orEmpty(flag)) ? 1 : 0);
}

int FlagpostResetEvent(const char* flag)
{
    const int scripted = fakePlatform().enter("FlagpostResetEvent", quoted(flag), orEmpty(flag)).value_or(0);
    if (scripted == 0) {
        fakePlatform().setFlag(orEmpty(flag), false);
    }
    return scripted;
}

int hangwatch_register_watchdog_service(int period)
{
    const int scripted =
        fakePlatform().enter("hangwatch_register_watchdog_service", std::to_string(period)).value_or(0);
    return scripted != 0 ? scripted : fakePlatform().setWatchdog(period);
}

int hangwatch_watchdog_notify(void)
{
    return fakePlatform()
        .enter("hangwatch_watchdog_notify", "")
        .value_or(fakePlatform().watchdogPeriod() ? 0 : -1);
}

int hangwatch_unregister_watchdog_service(void)
{
    const int scripted = fakePlatform().enter("hangwatch_unregister_watchdog_service", "").value_or(0);
    return scripted != 0 ? scripted : fakePlatform().setWatchdog(std::nullopt);
}
