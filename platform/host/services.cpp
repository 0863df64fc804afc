// sysprop.h, flagpost.h and hangwatch.h: system information, boot-event flags, the deadlock watchdog.

#include <cstdlib>
#include <cstring>

#include "flagpost.h"
#include "hangwatch.h"
#include "platform/host/bus.h"
#include "platform/host/exported.h"
#include "sysprop.h"

namespace
{

int flagCall(const char* method, const char* flag)
{
    if (!platform::isText(flag)) {
        return platform::kFailure;
    }
    return platform::callForResult(method, g_variant_new("(s)", flag));
}

} // namespace

// ---- System information ----

PLATFORM_EXPORT int sysprop_get_value_string(int key, char** value)
{
    if (value == nullptr) {
        return platform::kFailure;
    }
    const auto reply = platform::call(platform::kPlatform, "GetProperty", g_variant_new("(i)", key), "(is)");
    if (reply == nullptr) {
        return platform::kFailure;
    }
    int result = platform::kFailure;
    const char* text = nullptr;
    g_variant_get(reply.get(), "(i&s)", &result, &text);
    if (result != 0) {
        return result;
    }
    char* const copy = strdup(text); // the caller's, who calls free
    if (copy == nullptr) {
        return platform::kFailure;
    }
    *value = copy;
    return 0;
}

// ---- Boot-event flags ----

PLATFORM_EXPORT int FlagpostEventDone(const char* flag)
{
    return flagCall("RaiseFlag", flag);
}

PLATFORM_EXPORT int FlagpostIsDone(const char* flag)
{
    return flagCall("IsFlagRaised", flag);
}

PLATFORM_EXPORT int FlagpostResetEvent(const char* flag)
{
    return flagCall("ResetFlag", flag);
}

// ---- Deadlock watchdog ----

PLATFORM_EXPORT int hangwatch_register_watchdog_service(int period)
{
    return platform::callForResult("RegisterWatchdog", g_variant_new("(i)", period));
}

PLATFORM_EXPORT int hangwatch_watchdog_notify(void)
{
    return platform::callForResult("NotifyWatchdog");
}

PLATFORM_EXPORT int hangwatch_unregister_watchdog_service(void)
{
    return platform::callForResult("UnregisterWatchdog");
}
