// flagpost.h, hangwatch.h, sysprop.h, appbinary_manager.h, applaunch.h.

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "appbinary_manager.h"
#include "applaunch.h"
#include "common/process/guarded-buffer.h"
#include "flagpost.h"
#include "hangwatch.h"
#include "platform/check/trials/trial.h"
#include "sysprop.h"

namespace platformcheck
{

namespace
{

using common::GuardedBuffer;

std::string resultIs(int result)
{
    return ": the result is " + std::to_string(result);
}

// ---- Flags ----

int raise(Trial& trial, const std::string& flag)
{
    GuardedBuffer text("the flag", flag);
    return trial.result("FlagpostEventDone", [&] { return FlagpostEventDone(text.as<const char>()); });
}

int lower(Trial& trial, const std::string& flag)
{
    GuardedBuffer text("the flag", flag);
    return trial.result("FlagpostResetEvent", [&] { return FlagpostResetEvent(text.as<const char>()); });
}

bool isRaised(Trial& trial, const std::string& flag)
{
    GuardedBuffer text("the flag", flag);
    return trial.call("FlagpostIsDone", [&] { return FlagpostIsDone(text.as<const char>()); }) >= 1;
}

// Names of this check: the daemon's own tell others something.
std::string flagName(const Trial& trial, const char* end)
{
    return "/tmp/.tarnwick_check_" + std::to_string(trial.options().token) + end;
}

void tryFlags(Trial& trial)
{
    const std::string flag = flagName(trial, "");
    const std::string longer = flagName(trial, "_longer");
    trial.require(!isRaised(trial, flag), FindingId::OtherFlag, "a flag is raised that nobody has raised");
    const int raised = raise(trial, flag);
    trial.require(raised == 0, FindingId::NotRaised, flag + resultIs(raised));
    trial.require(isRaised(trial, flag), FindingId::NotRaised, flag + " is not, though success was said");
    trial.require(!isRaised(trial, longer) && !isRaised(trial, flag.substr(0, flag.size() - 1)),
                  FindingId::OtherFlag, "a flag with a longer or a shorter name was raised with it");
    const int again = raise(trial, flag);
    trial.require(again == 0 && isRaised(trial, flag), FindingId::FlagTwice, "raised" + resultIs(again));
    raise(trial, longer);
    lower(trial, longer);
    trial.require(isRaised(trial, flag), FindingId::OtherFlag,
                  "a flag was lowered with one whose name is longer");
    trial.require(!isRaised(trial, longer), FindingId::NotLowered,
                  longer + " is not, though success was said");
}

// Raised by the trial before this one, whose process has ended.
void tryFlagsOfOthers(Trial& trial)
{
    const std::string flag = flagName(trial, "");
    trial.require(isRaised(trial, flag), FindingId::FlagNotShared,
                  flag + " was raised by a process that has ended");
    const int lowered = lower(trial, flag);
    trial.require(lowered == 0, FindingId::NotLowered, flag + resultIs(lowered));
    trial.require(!isRaised(trial, flag), FindingId::NotLowered, flag + " is not, though success was said");
    const int again = lower(trial, flag);
    trial.require(again == 0, FindingId::FlagTwice, "lowered" + resultIs(again));
    trial.runBeside("flag-raiser"); // it was lowered at the last look here
    trial.require(isRaised(trial, flag), FindingId::FlagNotShared,
                  flag + " was raised by another process after a look at it");
    trial.runBeside("flag-lowerer");
    trial.require(!isRaised(trial, flag), FindingId::FlagNotShared,
                  flag + " was lowered by another process after a look at it");
    lower(trial, flag);
}

void raiseFlag(Trial& trial)
{
    raise(trial, flagName(trial, ""));
}

void lowerFlag(Trial& trial)
{
    lower(trial, flagName(trial, ""));
}

// ---- Watchdog ----

void tryWatchdog(Trial& trial)
{
    constexpr int kPeriod = 60;
    const auto unregister = [&] {
        return trial.call("hangwatch_unregister_watchdog_service", hangwatch_unregister_watchdog_service);
    };
    unregister(); // as the daemon's end does that could not start
    for (int time = 0; time < 2; ++time) {
        const int registered = trial.result("hangwatch_register_watchdog_service",
                                            [] { return hangwatch_register_watchdog_service(kPeriod); });
        if (!trial.require(registered == 0, FindingId::WatchdogNotRegistered,
                           "with " + std::to_string(kPeriod) + resultIs(registered))) {
            return;
        }
        trial.iterate(time == 0 ? 5200ms : 0ms); // the daemon's first notice comes after five seconds
        for (int notice = 0; notice < 3; ++notice) {
            const int notified = trial.result("hangwatch_watchdog_notify", hangwatch_watchdog_notify);
            trial.require(notified == 0, FindingId::WatchdogNotNotified, "notified" + resultIs(notified));
            trial.iterate(100ms);
        }
        const int unregistered =
            trial.result("hangwatch_unregister_watchdog_service", hangwatch_unregister_watchdog_service);
        trial.require(unregistered == 0, FindingId::WatchdogNotUnregistered,
                      "unregistered" + resultIs(unregistered));
    }
    trial.iterate(1s); // nothing may follow
}

// ---- System properties ----

constexpr int kVersionKey = 128;
constexpr int kUnknownKey = 0x7ffffff0;

int property(Trial& trial, int key, char*& value)
{
    value = nullptr;
    return trial.result("sysprop_get_value_string", [&] { return sysprop_get_value_string(key, &value); });
}

void release(Trial& trial, char* text)
{
    trial.call("free() of a text of sysprop_get_value_string", [text] { std::free(text); });
}

void tryVersion(Trial& trial)
{
    char* first = nullptr;
    const int result = property(trial, kVersionKey, first);
    if (!trial.require(result == 0 && first != nullptr, FindingId::NoVersion,
                       first == nullptr && result == 0 ? "there is no text" : "key 128" + resultIs(result))) {
        return;
    }
    const std::string text = first;
    trial.require(text.find('-') != std::string::npos, FindingId::VersionWithoutDash, "\"" + text + "\"");
    char* second = nullptr;
    char* none = nullptr;
    property(trial, kVersionKey, second);
    property(trial, kUnknownKey, none);
    trial.require(second != first, FindingId::TextNotOwned, "two calls gave the same memory");
    trial.require(text == first, FindingId::TextNotOwned, "\"" + text + "\" was overwritten by a later call");
    const bool isShared = second == first;
    std::memset(first, '#', text.size()); // it is the caller's
    char* third = nullptr;
    property(trial, kVersionKey, third);
    trial.require(third != nullptr && text == third, FindingId::TextNotOwned,
                  "the caller has written into its text, and the next call gave that");
    release(trial, first);
    if (!isShared) {
        release(trial, second);
    }
    if (third != first && third != second) {
        release(trial, third);
    }
}

void tryNoValue(Trial& trial)
{
    char* value = nullptr;
    for (const int key : {kUnknownKey, -1}) {
        const int result = property(trial, key, value);
        trial.require(result != 0 || value != nullptr, FindingId::ValueWithoutText,
                      "key " + std::to_string(key) + ": the result is 0, and the text is null");
        if (result == 0 && value != nullptr) {
            release(trial, value);
        }
    }
}

// ---- Packages ----

bool request(Trial& trial, const std::string& package)
{
    std::string name = package;
    const bool isTaken = trial.call("ABM_DownloadAppBinary", [&] {
        return appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, name);
    });
    name.assign(name.size(), '#'); // it is gone when the call has returned
    return isTaken;
}

// The daemon asks for none, but another program of the same set may, and the next version of this one.
struct PackageEnd {
    std::atomic<int> calls{0};
    std::atomic<pid_t> thread{0};
    std::atomic<bool> isInsideCall{false};
};

void onPackage(const std::string&, int, void* data)
{
    auto* const end = static_cast<PackageEnd*>(data);
    end->thread = gettid();
    end->isInsideCall = Trial::isInsideCall();
    ++end->calls;
}

void judgePackageCallback(Trial& trial, const std::string& package)
{
    static PackageEnd end; // the callback may come at any time
    const bool isTaken = trial.call("ABM_DownloadAppBinary", [&] {
        return appbinaryManager::ABM_DownloadAppBinary(onPackage, &end, package);
    });
    trial.iterate(2s, [] { return end.calls > 0; });
    trial.require(end.calls == 0 || end.thread == getpid(), FindingId::PackageCallback,
                  "on thread " + std::to_string(end.thread) + ", while the main loop runs on " +
                      std::to_string(getpid()));
    trial.require(!end.isInsideCall, FindingId::PackageCallback, "inside the call that asks for the package");
    trial.require(isTaken || end.calls == 0, FindingId::PackageCallback, "of a request that was not taken");
}

void tryPackages(Trial& trial)
{
    const std::string& known = trial.options().package;
    const std::string package = known.empty() ? "empTarnwickPlatformCheck" : known;
    const bool isTaken = request(trial, package);
    if (known.empty() && !isTaken) {
        trial.note("a package that the store may not have is refused: give one that it has with --package");
    } else {
        trial.require(isTaken, FindingId::PackageRefused, package);
    }
    trial.iterate(700ms); // its end has nobody to be told to
    judgePackageCallback(trial, package);
    request(trial, "emp" + std::string(200, 'X'));
    trial.iterate(300ms);
}

// ---- Launches ----

constexpr const char* kUnknownApplication = "org.pellor.tarnwick.platform_check.none";

int add(Trial& trial, applaunch_h request, const char* key, const char* value)
{
    GuardedBuffer name("the key", std::string(key));
    GuardedBuffer text("the value", std::string(value));
    return trial.result("applaunch_add_extra_data", [&] {
        return applaunch_add_extra_data(request, name.as<const char>(), text.as<const char>());
    });
}

int setApplication(Trial& trial, applaunch_h request)
{
    GuardedBuffer text("the application", std::string(kUnknownApplication));
    return trial.result("applaunch_set_app_id",
                        [&] { return applaunch_set_app_id(request, text.as<const char>()); });
}

applaunch_h create(Trial& trial)
{
    applaunch_h request = nullptr;
    const int result = trial.result("applaunch_create", [&] { return applaunch_create(&request); });
    trial.require(result == 0 && request != nullptr, FindingId::RequestNotCreated,
                  result == 0 ? "success was said, and the handle is null" : "created" + resultIs(result));
    return request;
}

void fill(Trial& trial, applaunch_h request)
{
    const std::pair<const char*, const char*> extras[] = {
        {"updatetype", "general"}, {"timeinfo", "130"}, {"uitype", "select"}};
    for (const auto& [key, value] : extras) {
        const int added = add(trial, request, key, value);
        trial.require(added == 0, FindingId::RequestNotFilled, std::string(key) + resultIs(added));
    }
    const int set = setApplication(trial, request);
    trial.require(set == 0, FindingId::RequestNotFilled, kUnknownApplication + resultIs(set));
}

void destroy(Trial& trial, applaunch_h request)
{
    const int result = trial.result("applaunch_destroy", [&] { return applaunch_destroy(request); });
    trial.require(result == 0, FindingId::RequestNotDestroyed, "destroyed" + resultIs(result));
}

// Whether there is such an application may be found later: either result is right.
int send(Trial& trial, applaunch_h request)
{
    return trial.result("applaunch_send_launch_request",
                        [&] { return applaunch_send_launch_request(request, nullptr, nullptr); });
}

void tryLaunch(Trial& trial)
{
    applaunch_h first = create(trial);
    applaunch_h second = create(trial);
    trial.require(first != second || first == nullptr, FindingId::RequestNotCreated,
                  "two requests have one handle");
    if (first == nullptr || second == nullptr || first == second) {
        return;
    }
    fill(trial, first);
    fill(trial, second);
    for (int attempt = 0; attempt < 2 && send(trial, first) != 0; ++attempt) {
        trial.iterate(500ms);
    }
    destroy(trial, first);
    trial.iterate(700ms); // the reply has nobody to be told to
    const int added = add(trial, second, "later", "1");
    trial.require(added == 0, FindingId::RequestNotFilled,
                  "after another request was destroyed" + resultIs(added));
    destroy(trial, second);
}

void tryNullRequest(Trial& trial)
{
    trial.call("applaunch_add_extra_data",
               [] { return applaunch_add_extra_data(nullptr, "updatetype", "general"); });
    const int set =
        trial.call("applaunch_set_app_id", [] { return applaunch_set_app_id(nullptr, kUnknownApplication); });
    trial.require(set < 0, FindingId::NullRequestTaken, "applaunch_set_app_id" + resultIs(set));
    const int sent = trial.call("applaunch_send_launch_request",
                                [] { return applaunch_send_launch_request(nullptr, nullptr, nullptr); });
    trial.require(sent < 0, FindingId::NullRequestTaken, "applaunch_send_launch_request" + resultIs(sent));
    trial.call("applaunch_destroy", [] { return applaunch_destroy(nullptr); });
}

} // namespace

std::vector<TrialKind> serviceTrials()
{
    return {{"flags", tryFlags},         {"flags-shared", tryFlagsOfOthers},
            {"flag-raiser", raiseFlag},  {"flag-lowerer", lowerFlag},
            {"watchdog", tryWatchdog},   {"property", tryVersion},
            {"no-property", tryNoValue}, {"package", tryPackages},
            {"launch", tryLaunch},       {"null-launch", tryNullRequest}};
}

} // namespace platformcheck
