// Calls that somebody makes seldom, or that are refused: a platform may take long for one kind of them alone.

#include <cstdlib>
#include <cstring>

#include "appbinary_manager.h"
#include "applaunch.h"
#include "flagpost.h"
#include "norlog.h"
#include "platform/check/trials/trial.h"
#include "pralis.h"
#include "pwrctl.h"
#include "sysprop.h"
#include "trace_logger.h"

namespace platformcheck
{

namespace
{

constexpr const char* kNoKey = "memory/tarnwick/platform_check/no_such_key";
constexpr const char* kFlag = "/tmp/.tarnwick_check_kinds";
constexpr unsigned int kMinute = 60'000;

int value = 0; // that nobody looks at
applaunch_h request = nullptr;

void onKey(keynode*, void*) {}
void onKeyToo(keynode*, void*) {}

int onState(pwrctl_state_info*, void*)
{
    return 0;
}

int onPowerOff(pwrctl_poweroff_info*, void*)
{
    return 0;
}

int readProperty(int key)
{
    char* text = nullptr;
    const int result = sysprop_get_value_string(key, &text);
    std::free(result == 0 ? text : nullptr);
    return result;
}

int record(int priority, std::size_t length)
{
    const std::string text(length, 'k');
    return __norlog_print(2, priority, "FWUPDATE", "%s %m", text.c_str());
}

int trace(int priority, std::size_t length)
{
    const std::string text(length, 'k');
    TraceLogger::record(priority, "kinds.cpp", __func__, __LINE__, "%s %m", text.c_str());
    return 0;
}

// Each finds what those before it have left.
struct KindOfCall {
    const char* name; // the function, and behind a comma what is special
    int (*make)();
};

constexpr KindOfCall kSettings[] = {
    {"pralis_get_int, without a value", [] { return pralis_get_int(kNoKey, &value); }},
    {"pralis_set_int, another value", [] { return pralis_set_int(kProgress, ++value % 1000); }},
    {"pralis_set_int, the same value", [] { return pralis_set_int(kProgress, value % 1000); }},
    {"pralis_get_int, just written", [] { return pralis_get_int(kProgress, &value); }},
    {"pralis_ignore_key_changed, of none", [] { return pralis_ignore_key_changed(kProgress, onKey); }},
    {"pralis_notify_key_changed, the first",
     [] { return pralis_notify_key_changed(kProgress, onKey, nullptr); }},
    {"pralis_notify_key_changed, the second",
     [] { return pralis_notify_key_changed(kProgress, onKeyToo, nullptr); }},
    {"pralis_set_int, with subscriptions", [] { return pralis_set_int(kProgress, 2000); }},
    {"pralis_ignore_key_changed, of one of two", [] { return pralis_ignore_key_changed(kProgress, onKey); }},
    {"pralis_ignore_key_changed, of the last", [] { return pralis_ignore_key_changed(kProgress, onKeyToo); }},
};

constexpr KindOfCall kPower[] = {
    {"pwrctl_unlock_state, not held", [] { return pwrctl_unlock_state(2); }},
    {"pwrctl_lock_state, not held", [] { return pwrctl_lock_state(2, kMinute); }},
    {"pwrctl_lock_state, held", [] { return pwrctl_lock_state(2, 2 * kMinute); }},
    {"pwrctl_lock_state, another kind", [] { return pwrctl_lock_state(0, kMinute); }},
    {"pwrctl_get_state, locked", pwrctl_get_state},
    {"pwrctl_unlock_state, held", [] { return pwrctl_unlock_state(2); }},
    {"pwrctl_unlock_state, the last", [] { return pwrctl_unlock_state(0); }},
    {"pwrctl_unsubscribe_state_changed_event, of none",
     [] { return pwrctl_unsubscribe_state_changed_event(onState); }},
    {"pwrctl_subscribe_state_changed_event, anew",
     [] { return pwrctl_subscribe_state_changed_event(onState, nullptr); }},
    {"pwrctl_unsubscribe_state_changed_event, of one",
     [] { return pwrctl_unsubscribe_state_changed_event(onState); }},
    {"pwrctl_unsubscribe_poweroff_event, of none",
     [] { return pwrctl_unsubscribe_poweroff_event(onPowerOff); }},
    {"pwrctl_subscribe_poweroff_event, anew",
     [] { return pwrctl_subscribe_poweroff_event(onPowerOff, nullptr); }},
    {"pwrctl_unsubscribe_poweroff_event, of one",
     [] { return pwrctl_unsubscribe_poweroff_event(onPowerOff); }},
};

constexpr KindOfCall kServices[] = {
    {"FlagpostIsDone, lowered", [] { return FlagpostIsDone(kFlag); }},
    {"FlagpostResetEvent, lowered", [] { return FlagpostResetEvent(kFlag); }},
    {"FlagpostEventDone, lowered", [] { return FlagpostEventDone(kFlag); }},
    {"FlagpostEventDone, raised", [] { return FlagpostEventDone(kFlag); }},
    {"FlagpostIsDone, raised", [] { return FlagpostIsDone(kFlag); }},
    {"FlagpostResetEvent, raised", [] { return FlagpostResetEvent(kFlag); }},
    {"sysprop_get_value_string, the version", [] { return readProperty(128); }},
    {"sysprop_get_value_string, without a value", [] { return readProperty(0x7ffffff0); }},
    {"applaunch_send_launch_request, null",
     [] { return applaunch_send_launch_request(nullptr, nullptr, nullptr); }},
    {"applaunch_create", [] { return applaunch_create(&request); }},
    {"applaunch_send_launch_request, no application",
     [] { return applaunch_send_launch_request(request, nullptr, nullptr); }},
    {"applaunch_destroy, not launched", [] { return applaunch_destroy(request); }},
    {"ABM_DownloadAppBinary, no name",
     [] { return appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, "") ? 0 : -1; }},
};

constexpr KindOfCall kLogs[] = {
    {"__norlog_print, debug", [] { return record(3, 10); }},
    {"__norlog_print, an error", [] { return record(6, 10); }},
    {"__norlog_print, 6000 characters", [] { return record(6, 6000); }},
    {"TraceLogger::record, debug", [] { return trace(3, 10); }},
    {"TraceLogger::record, an error", [] { return trace(6, 10); }},
    {"TraceLogger::record, 6000 characters", [] { return trace(6, 6000); }},
};

// Whether 0 is success and anything above it a breach: a look at a flag, a state and a log's record say
// otherwise.
bool isJudged(const char* name)
{
    const auto begins = [name](const char* with) { return std::strncmp(name, with, std::strlen(with)) == 0; };
    return !begins("FlagpostIsDone") && !begins("pwrctl_get_state") && !begins("__norlog_print");
}

// Of three the middle one's time counts.
template <std::size_t count>
void makeThrice(Trial& trial, const KindOfCall (&kinds)[count])
{
    for (int time = 0; time < 3; ++time) {
        for (const KindOfCall& kind : kinds) {
            isJudged(kind.name) ? trial.result(kind.name, kind.make) : trial.call(kind.name, kind.make);
        }
        trial.iterate(5ms);
    }
}

void tryKinds(Trial& trial)
{
    makeThrice(trial, kSettings);
    makeThrice(trial, kPower);
    makeThrice(trial, kServices);
    makeThrice(trial, kLogs);
}

} // namespace

std::vector<TrialKind> kindTrials()
{
    return {{"kinds", tryKinds}};
}

} // namespace platformcheck
