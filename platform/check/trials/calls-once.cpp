// Each call of the platform's headers, made once: a new one is added here.
#include "platform/check/trials/calls-once.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "appbinary_manager.h"
#include "applaunch.h"
#include "flagpost.h"
#include "hangwatch.h"
#include "norlog.h"
#include "platform/check/trials/garbage.h"
#include "pralis.h"
#include "ps_mount.h"
#include "pwrctl.h"
#include "sysprop.h"
#include "trace_logger.h"

namespace platformcheck
{

namespace
{

// Not __FILE__, which would tell where this program was built.
constexpr const char* kFile = "calls-once.cpp";

// What was right the first time has to be right each time; the first that is not is told.
void steady(Trial& trial, bool isRight, FindingId otherwise, const char* name, const std::string& seen)
{
    if (!trial.hasFound()) {
        trial.require(isRight, otherwise, std::string(name) + ", again and again: " + seen);
    }
}

template <typename Function>
int expectSuccess(Trial& trial, FindingId otherwise, const char* name, Function call)
{
    const int result = trial.call(name, call);
    steady(trial, result == 0, otherwise, name, "the result is " + std::to_string(result));
    return result;
}

void onKey(keynode* node, void* data)
{
    pralis_keynode_get_int(node);
    ++*static_cast<int*>(data);
}

int heardKeys = 0;

int ignoreState(pwrctl_state_info*, void*)
{
    return 0;
}

int ignorePowerOff(pwrctl_poweroff_info*, void*)
{
    return 0;
}

// The text, or how it was refused.
std::string propertyText(Trial& trial, int key)
{
    char* value = nullptr;
    if (trial.call("sysprop_get_value_string", [&] { return sysprop_get_value_string(key, &value); }) != 0) {
        return "refused";
    }
    std::string text = value == nullptr ? "" : value;
    trial.call("free() of a text of sysprop_get_value_string", [value] { std::free(value); });
    return text;
}

// Each text is another one, and some are long.
const std::string& nextText()
{
    thread_local int number = 0;
    thread_local std::string text;
    text.assign(++number % 16 == 0 ? 3000 : 40, 'r');
    text += std::to_string(number);
    return text;
}

} // namespace

void settingsOnce(Trial& trial)
{
    static int written = 1000;
    int value = 0;
    ++written;
    const bool isWritten = expectSuccess(trial, FindingId::NotWritten, "pralis_set_int",
                                         [] { return pralis_set_int(kProgress, written); }) == 0;
    if (expectSuccess(trial, FindingId::NotRead, "pralis_get_int",
                      [&] { return pralis_get_int(kProgress, &value); }) == 0) {
        steady(trial, !isWritten || value == written, FindingId::WrongValue, "pralis_get_int",
               std::to_string(written) + " was written, " + std::to_string(value) + " was read");
    }
    trial.call("pralis_get_int",
               [&] { return pralis_get_int("memory/tarnwick/platform_check/no_such_key", &value); });
}

void subscriptionOnce(Trial& trial)
{
    expectSuccess(trial, FindingId::NotSubscribed, "pralis_notify_key_changed",
                  [] { return pralis_notify_key_changed(kStatus, onKey, &heardKeys); });
    expectSuccess(trial, FindingId::NotUnsubscribed, "pralis_ignore_key_changed",
                  [] { return pralis_ignore_key_changed(kStatus, onKey); });
}

// The subscription of this one stands for as long as its process does.
void notificationOnce(Trial& trial)
{
    static const bool isSubscribed = pralis_notify_key_changed(kStatus, onKey, &heardKeys) == 0;
    static int value = 0;
    const int before = heardKeys;
    ++value;
    const int result = trial.call("pralis_set_int", [] { return pralis_set_int(kStatus, value % 4); });
    if (isSubscribed && result == 0) {
        const auto most = trial.hasFound() ? 100ms : 2500ms;
        const bool isHeard = trial.iterate(most, [before] { return heardKeys > before; });
        steady(trial, isHeard, FindingId::NotNotified, "a change",
               "number " + std::to_string(value) + " was not told");
    }
}

void powerOnce(Trial& trial)
{
    const int state = trial.call("pwrctl_get_state", pwrctl_get_state);
    static const int first = state;
    steady(trial, state == first, FindingId::StateNotNormal, "pwrctl_get_state",
           "it was " + std::to_string(first) + " and is " + std::to_string(state));
    expectSuccess(trial, FindingId::NotLocked, "pwrctl_lock_state",
                  [] { return pwrctl_lock_state(2, 60000); });
    expectSuccess(trial, FindingId::NotReleased, "pwrctl_unlock_state",
                  [] { return pwrctl_unlock_state(2); });
}

// What is not there to be ended.
static void endNothing(Trial& trial)
{
    trial.call("pwrctl_unlock_state", [] { return pwrctl_unlock_state(2); });
    trial.call("pwrctl_unsubscribe_state_changed_event",
               [] { return pwrctl_unsubscribe_state_changed_event(ignoreState); });
    trial.call("pralis_ignore_key_changed", [] { return pralis_ignore_key_changed(kWorking, onKey); });
}

void powerEventsOnce(Trial& trial)
{
    expectSuccess(trial, FindingId::EventsNotSubscribed, "pwrctl_subscribe_state_changed_event",
                  [] { return pwrctl_subscribe_state_changed_event(ignoreState, nullptr); });
    expectSuccess(trial, FindingId::EventsNotSubscribed, "pwrctl_subscribe_poweroff_event",
                  [] { return pwrctl_subscribe_poweroff_event(ignorePowerOff, nullptr); });
    expectSuccess(trial, FindingId::EventsNotUnsubscribed, "pwrctl_unsubscribe_state_changed_event",
                  [] { return pwrctl_unsubscribe_state_changed_event(ignoreState); });
    expectSuccess(trial, FindingId::EventsNotUnsubscribed, "pwrctl_unsubscribe_poweroff_event",
                  [] { return pwrctl_unsubscribe_poweroff_event(ignorePowerOff); });
    endNothing(trial);
}

void flagsOnce(Trial& trial)
{
    constexpr const char* kFlag = "/tmp/.tarnwick_check_again";
    const auto isRaised = [&] {
        return trial.call("FlagpostIsDone", [] { return FlagpostIsDone(kFlag); }) >= 1;
    };
    expectSuccess(trial, FindingId::NotRaised, "FlagpostEventDone", [] { return FlagpostEventDone(kFlag); });
    steady(trial, isRaised(), FindingId::NotRaised, "FlagpostIsDone", "a raised flag is not");
    expectSuccess(trial, FindingId::NotLowered, "FlagpostResetEvent",
                  [] { return FlagpostResetEvent(kFlag); });
    steady(trial, !isRaised(), FindingId::NotLowered, "FlagpostIsDone", "a lowered flag is not");
    trial.call("FlagpostResetEvent", [] { return FlagpostResetEvent(kFlag); });
}

void watchdogOnce(Trial& trial)
{
    const auto notify = [&] {
        expectSuccess(trial, FindingId::WatchdogNotNotified, "hangwatch_watchdog_notify",
                      hangwatch_watchdog_notify);
    };
    expectSuccess(trial, FindingId::WatchdogNotRegistered, "hangwatch_register_watchdog_service",
                  [] { return hangwatch_register_watchdog_service(60); });
    notify();
    notify();
    trial.onThread(notify);
    expectSuccess(trial, FindingId::WatchdogNotUnregistered, "hangwatch_unregister_watchdog_service",
                  hangwatch_unregister_watchdog_service);
    trial.call("hangwatch_unregister_watchdog_service", hangwatch_unregister_watchdog_service);
    trial.call("hangwatch_watchdog_notify", hangwatch_watchdog_notify);
}

void propertyOnce(Trial& trial)
{
    const std::string version = propertyText(trial, 128);
    static const std::string first = version;
    steady(trial, version == first, FindingId::NoVersion, "sysprop_get_value_string",
           "\"" + first + "\" and then \"" + version + "\"");
    propertyText(trial, 0x7ffffff0);
}

void packageOnce(Trial& trial)
{
    const bool isTaken = trial.call("ABM_DownloadAppBinary", [] {
        return appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, "empTarnwickPlatformCheck");
    });
    static const bool isFirstTaken = isTaken;
    steady(trial, isTaken == isFirstTaken, FindingId::PackageRefused, "ABM_DownloadAppBinary",
           isFirstTaken ? "the same package is not taken any more" : "what was refused is taken");
    trial.call("ABM_DownloadAppBinary",
               [] { return appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, ""); });
}

// Without an application, and without a request.
static void refuseLaunches(Trial& trial)
{
    applaunch_h request = nullptr;
    trial.call("applaunch_create", [&] { return applaunch_create(&request); });
    for (const applaunch_h one : {request, applaunch_h{nullptr}}) {
        trial.call("applaunch_send_launch_request",
                   [=] { return applaunch_send_launch_request(one, nullptr, nullptr); });
        trial.call("applaunch_destroy", [=] { return applaunch_destroy(one); });
    }
    trial.call("applaunch_add_extra_data", [] { return applaunch_add_extra_data(nullptr, "timeinfo", "1"); });
    trial.call("applaunch_set_app_id",
               [] { return applaunch_set_app_id(nullptr, "org.pellor.tarnwick.platform_check.none"); });
}

void launchOnce(Trial& trial)
{
    static int number = 0;
    applaunch_h request = nullptr;
    expectSuccess(trial, FindingId::RequestNotCreated, "applaunch_create",
                  [&] { return applaunch_create(&request); });
    if (request == nullptr) {
        return;
    }
    const std::string time = std::to_string(++number); // of seconds, and no two are the same
    expectSuccess(trial, FindingId::RequestNotFilled, "applaunch_add_extra_data",
                  [&] { return applaunch_add_extra_data(request, "timeinfo", time.c_str()); });
    expectSuccess(trial, FindingId::RequestNotFilled, "applaunch_set_app_id",
                  [=] { return applaunch_set_app_id(request, "org.pellor.tarnwick.platform_check.none"); });
    const bool isSent = trial.call("applaunch_send_launch_request", [=] {
        return applaunch_send_launch_request(request, nullptr, nullptr);
    }) == 0;
    static const bool isFirstSent = isSent;
    steady(trial, isSent || !isFirstSent, FindingId::LaunchGivenUp, "applaunch_send_launch_request",
           "launch number " + time + " is refused");
    expectSuccess(trial, FindingId::RequestNotDestroyed, "applaunch_destroy",
                  [=] { return applaunch_destroy(request); });
    refuseLaunches(trial);
}

static void refuseMount(Trial& trial, const std::string& image, const std::string& directory,
                        const char* what)
{
    char command[1024] = "";
    std::snprintf(command, sizeof command, "-o ro,loop,nodev,nosuid %s %s", image.c_str(), directory.c_str());
    int result = 0;
    const int returned =
        trial.call("PS_Mount", [&] { return PS_Mount(command, sizeof command, 0, &result); });
    steady(trial, returned != 0 || result != 0, FindingId::BadMountSucceeds, "PS_Mount", what);
}

// Refused ones: there is neither image nor directory, or one of the two, or the file is no image.
void mountOnce(Trial& trial)
{
    constexpr const char* kDirectory = "/tmp/.tarnwick_check/missing";
    const std::string image = trial.options().image;
    refuseMount(trial, "/tmp/.tarnwick_check/missing.img", kDirectory, "of a missing image");
    if (!image.empty()) {
        refuseMount(trial, image, kDirectory, "on a missing directory");
    }
    const Garbage garbage(trial, "empPlatformCheckR", std::string(4096, 'x'));
    refuseMount(trial, garbage.path(), trial.options().work, "of a file that is no image");
    int result = 0;
    char node[1024] = "-m 0660 -Z * /dev/loop0  b 7 0"; // which is there
    trial.call("PS_Mknod", [&] { return PS_Mknod(node, sizeof node, 0, &result); });
    result = 0;
    trial.call("PS_Umount",
               [&] { return PS_Umount(kDirectory, static_cast<int>(std::strlen(kDirectory)), 0, &result); });
}

void mountedOnce(Trial& trial)
{
    const std::string directory = trial.options().directory;
    if (trial.options().image.empty()) {
        return;
    }
    mkdir(directory.c_str(), 0775);
    char command[1024] = "";
    std::snprintf(command, sizeof command, "-o ro,loop,nodev,nosuid %s %s", trial.options().image.c_str(),
                  directory.c_str());
    int result = 0;
    const int mounted = trial.call("PS_Mount", [&] { return PS_Mount(command, sizeof command, 0, &result); });
    steady(trial, mounted == 0 && result == 0, FindingId::NotMounted, "PS_Mount",
           "returned " + std::to_string(mounted) + ", result " + std::to_string(result));
    result = 0;
    const int unmounted = trial.call("PS_Umount", [&] {
        return PS_Umount(directory.c_str(), static_cast<int>(directory.size()), 0, &result);
    });
    steady(trial, unmounted == 0 && result == 0, FindingId::NotUnmounted, "PS_Umount",
           "returned " + std::to_string(unmounted) + ", result " + std::to_string(result));
    rmdir(directory.c_str());
}

// Of the four, one after the other: records of each may be kept apart, for different times.
int nextPriority()
{
    thread_local unsigned int calls = 0;
    return 3 + static_cast<int>(calls++ % 4);
}

void platformLogOnce(Trial& trial)
{
    const int priority = nextPriority();
    const std::string& text = nextText();
    const int result = trial.call(
        "__norlog_print", [&] { return __norlog_print(2, priority, "FWUPDATE", "%s: %d", text.c_str(), 7); });
    steady(trial, result >= 0, FindingId::NotLogged, "__norlog_print",
           "the result is " + std::to_string(result));
}

void traceLogOnce(Trial& trial)
{
    const int priority = nextPriority();
    const std::string& text = nextText();
    trial.call("TraceLogger::record", [&] {
        TraceLogger::record(priority, kFile, "traceLogOnce", __LINE__, "%s: %d", text.c_str(), 7);
    });
}

} // namespace platformcheck
