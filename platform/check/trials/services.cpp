// flagpost.h, hangwatch.h, sysprop.h, appbinary_manager.h, applaunch.h.

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "appbinary_manager.h"
#include "applaunch.h"
#include "common/process/guarded-buffer.h"
#include "flagpost.h"
#include "hangwatch.h"
#include "platform/check/trials/calls-once.h"
#include "platform/check/trials/session.h"
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
std::string flagName(const Trial& trial, const std::string& end)
{
    return "/tmp/.tarnwick_check_" + std::to_string(trial.options().token) + end;
}

// Names that differ in one place only, or are long.
std::vector<std::string> similarNames(const Trial& trial)
{
    const std::string flag = flagName(trial, "");
    return {flag + "_longer",
            flag.substr(0, flag.size() - 1),
            flagName(trial, "_X"),
            flagName(trial, "_x"),
            flagName(trial, "_" + std::string(150, 'f') + "1"),
            flagName(trial, "_" + std::string(150, 'f') + "2"),
            flagName(trial, "_" + std::string(210, 'F') + "1"), // no name in a directory is longer than 255
            flagName(trial, "_" + std::string(210, 'F') + "2"),
            flagName(trial, " with blanks"),
            flagName(trial, "_%s;'$x\""),
            "/tmp/tarnwick_check_" + std::to_string(trial.options().token),
            "/tmp/.tarnwick_check." + std::to_string(trial.options().token)};
}

// Each of them by itself: none of the others changes with it.
void tryApart(Trial& trial, const std::vector<std::string>& all)
{
    std::vector<std::string> names; // that could be raised
    for (const std::string& name : all) {
        trial.require(!isRaised(trial, name), FindingId::OtherFlag,
                      name + " was raised with a flag whose name is similar");
        const int raised = raise(trial, name);
        if (trial.require(raised == 0 && isRaised(trial, name), FindingId::NotRaised,
                          name + resultIs(raised))) {
            names.push_back(name);
        }
    }
    for (const std::string& name : names) {
        trial.require(isRaised(trial, name), FindingId::OtherFlag,
                      name + " was lowered with a flag whose name is similar");
        const int lowered = lower(trial, name);
        trial.require(lowered == 0 && !isRaised(trial, name), FindingId::NotLowered,
                      name + resultIs(lowered));
    }
}

// Directories for flags, of which everybody may make files in.
class FlagDirectories
{
public:
    explicit FlagDirectories(const std::string& path) : path_(path)
    {
        for (const std::filesystem::path& directory : {path_, path_ / "one", path_ / "two"}) {
            constexpr mode_t kAsTmp = 01777;
            mkdir(directory.c_str(), kAsTmp);
            chmod(directory.c_str(), kAsTmp);
        }
    }
    ~FlagDirectories()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    FlagDirectories(const FlagDirectories&) = delete;
    FlagDirectories& operator=(const FlagDirectories&) = delete;

private:
    std::filesystem::path path_;
};

// One last name, in several directories.
void tryDirectories(Trial& trial)
{
    const std::string path = flagName(trial, "_in");
    const FlagDirectories directories(path);
    const std::string name = "/.tarnwick_check_" + std::to_string(trial.options().token) + "_ready";
    tryApart(trial, {path + "/one" + name, path + "/two" + name, path + name, "/tmp" + name});
}

// More than a table with few places holds, as far as there is time.
void tryMany(Trial& trial)
{
    constexpr std::size_t kMany = 20;
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(2s).count();
    std::vector<std::string> names;
    while (names.size() < kMany && common::realNow() < end) {
        names.push_back(flagName(trial, "_many_" + std::to_string(names.size())));
        const int raised = raise(trial, names.back());
        trial.require(raised == 0, FindingId::NotRaised,
                      "number " + std::to_string(names.size()) + resultIs(raised));
    }
    for (const std::string& name : names) {
        trial.require(isRaised(trial, name), FindingId::OtherFlag,
                      name + " of " + std::to_string(names.size()) + " flags is not raised any more");
        lower(trial, name);
    }
    trial.require(!isRaised(trial, names.back()), FindingId::NotLowered, names.back());
}

// A file that tells that the flags were tried: others look at them.
std::filesystem::path raisedForLater(const Trial& trial)
{
    return trial.options().work / "flag-raised";
}

void tryFlags(Trial& trial)
{
    const std::string flag = flagName(trial, "");
    if (trial.options().isAgain) {
        lower(trial, flag);
    }
    trial.require(!isRaised(trial, flag), FindingId::OtherFlag, "a flag is raised that nobody has raised");
    const int never = lower(trial, flag);
    trial.require(never == 0 && !isRaised(trial, flag), FindingId::FlagTwice,
                  "one that was never raised, lowered" + resultIs(never));
    const int raised = raise(trial, flag);
    trial.require(raised == 0, FindingId::NotRaised, flag + resultIs(raised));
    trial.require(isRaised(trial, flag), FindingId::NotRaised, flag + " is not, though success was said");
    for (const char* const where : {"", " on another thread"}) {
        bool isStill = false;
        const auto look = [&] { isStill = isRaised(trial, flag); };
        *where == '\0' ? look() : trial.onThread(look);
        trial.require(isStill, FindingId::NotRaised, flag + " is not any more at another look" + where);
    }
    const int again = raise(trial, flag);
    trial.require(again == 0 && isRaised(trial, flag), FindingId::FlagTwice, "raised" + resultIs(again));
    for (const char* const odd : {"", "x", "/", "/tmp", "/tmp/", "tmp/x"}) { // whatever they answer
        isRaised(trial, odd);
        lower(trial, odd);
    }
    tryApart(trial, similarNames(trial));
    tryDirectories(trial);
    tryMany(trial);
    trial.require(isRaised(trial, flag), FindingId::OtherFlag, "a flag was lowered with others");
    if (raise(trial, flagName(trial, "_later")) == 0) {
        std::ofstream(raisedForLater(trial)) << "raised\n";
    }
}

// One flag, up and down for a moment.
void keepChanging(Trial& trial, const std::string& flag, const std::function<bool()>& isOver)
{
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(150ms).count();
    while (common::realNow() < end && !isOver() && !trial.hasFound()) {
        raise(trial, flag);
        const bool isUp = isRaised(trial, flag);
        lower(trial, flag);
        trial.require(isUp && !isRaised(trial, flag), FindingId::OtherFlag,
                      flag + " was wrong beside another process, which changes a flag of its own");
    }
}

void changeBeside(Trial& trial)
{
    keepChanging(trial, flagName(trial, "_beside"), [] { return false; });
}

// Two processes change a flag each.
void tryBesideAnother(Trial& trial)
{
    std::atomic<bool> isOver{false};
    std::thread beside([&] {
        trial.runBeside("flag-changer", Trial::Loop::kStands);
        isOver = true;
    });
    while (!isOver && !trial.hasFound()) {
        keepChanging(trial, flagName(trial, "_here"), [&] { return isOver.load(); });
    }
    beside.join();
}

// Nobody owns a flag.
void tryOthersFlag(Trial& trial, const std::string& flag)
{
    trial.runBeside("flag-raiser");
    const int raised = raise(trial, flag);
    trial.require(raised == 0, FindingId::FlagTwice,
                  "raised by another process, and here" + resultIs(raised));
    trial.runBeside("flag-lowerer");
    const int lowered = lower(trial, flag);
    trial.require(lowered == 0, FindingId::FlagTwice,
                  "lowered by another process, and here" + resultIs(lowered));
    trial.runBeside("flag-raiser");
    const int ours = lower(trial, flag);
    trial.require(ours == 0 && !isRaised(trial, flag), FindingId::NotLowered,
                  "raised by another process, and lowered here" + resultIs(ours));
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
    for (const Trial::Loop loop : {Trial::Loop::kRuns, Trial::Loop::kStands}) {
        isRaised(trial, flag); // lowered, at the last look here
        trial.runBeside("flag-raiser", loop);
        trial.require(isRaised(trial, flag), FindingId::FlagNotShared,
                      flag + " was raised by another process after a look at it");
        trial.runBeside("flag-lowerer", loop);
        trial.require(!isRaised(trial, flag), FindingId::FlagNotShared,
                      flag + " was lowered by another process after a look at it");
    }
    tryOthersFlag(trial, flag);
    tryBesideAnother(trial);
    raise(trial, flag); // and what this process does, the other sees
    trial.runBeside("flag-lowerer", Trial::Loop::kStands);
    trial.onThread([&] {
        trial.require(!isRaised(trial, flag), FindingId::FlagNotShared,
                      flag + " was raised here and lowered by another process");
    });
    trial.hasFound() ? raise(trial, flag) : lower(trial, flag); // this may be tried once more
}

void raiseFlag(Trial& trial)
{
    const std::string flag = flagName(trial, "");
    trial.require(!isRaised(trial, flag), FindingId::FlagNotShared, flag + " was lowered by another process");
    raise(trial, flag);
}

void lowerFlag(Trial& trial)
{
    const std::string flag = flagName(trial, "");
    trial.require(isRaised(trial, flag), FindingId::FlagNotShared, flag + " was raised by another process");
    lower(trial, flag);
}

void tryLater(Trial& trial)
{
    if (std::filesystem::exists(raisedForLater(trial))) {
        const std::string flag = flagName(trial, "_later");
        trial.require(isRaised(trial, flag), FindingId::FlagNotShared,
                      flag + " was raised some time ago, and nobody has lowered it");
        trial.hasFound() ? 0 : lower(trial, flag); // else this may be tried once more
    }
}

// ---- Watchdog ----

bool registerWatchdog(Trial& trial)
{
    constexpr int kPeriod = 60;
    const int registered = trial.result("hangwatch_register_watchdog_service",
                                        [] { return hangwatch_register_watchdog_service(kPeriod); });
    return trial.require(registered == 0, FindingId::WatchdogNotRegistered,
                         "with " + std::to_string(kPeriod) + resultIs(registered));
}

void notifyWatchdog(Trial& trial, const char* situation = "")
{
    const int notified = trial.result("hangwatch_watchdog_notify", hangwatch_watchdog_notify);
    trial.require(notified == 0, FindingId::WatchdogNotNotified,
                  std::string("notified") + situation + resultIs(notified));
}

void unregisterWatchdog(Trial& trial)
{
    const int unregistered =
        trial.result("hangwatch_unregister_watchdog_service", hangwatch_unregister_watchdog_service);
    trial.require(unregistered == 0, FindingId::WatchdogNotUnregistered,
                  "unregistered" + resultIs(unregistered));
}

// Several threads at a time, and more often than it is needed.
void notifyTogether(Trial& trial)
{
    const auto notify = [&] {
        for (int notice = 0; notice < 15; ++notice) {
            notifyWatchdog(trial, " beside another thread");
        }
    };
    std::thread beside(notify);
    notify();
    beside.join();
}

// As the daemon's main loop does, with the first notice after five seconds.
void keepNotifying(Trial& trial)
{
    trial.tellSituation("registered, with the first notice to come after five seconds");
    trial.iterate(5200ms);
    trial.tellSituation("registered and notified every five seconds");
    for (const auto pause : {4900ms, 4900ms, 100ms}) {
        notifyWatchdog(trial);
        trial.iterate(pause);
    }
}

// Other trials are made meanwhile, which take longer than this one.
void tryWatchdog(Trial& trial)
{
    // As the daemon's end does that could not start; what never began may fail, and does no harm.
    for (int time = 0; time < 3; ++time) { // for the middle one of their times
        trial.result("hangwatch_unregister_watchdog_service, of none", hangwatch_unregister_watchdog_service);
        trial.result("hangwatch_watchdog_notify, of none", hangwatch_watchdog_notify);
    }
    bool isRegistered = false; // by a thread that has ended
    trial.onThread([&] { isRegistered = registerWatchdog(trial); });
    if (!isRegistered) {
        return;
    }
    keepNotifying(trial);
    unregisterWatchdog(trial);
    trial.result("hangwatch_unregister_watchdog_service, of none", hangwatch_unregister_watchdog_service);
    if (!registerWatchdog(trial)) {
        return;
    }
    for (int notice = 0; notice < 3; ++notice) {
        notifyWatchdog(trial);
        trial.iterate(100ms);
    }
    trial.onThread([&] { notifyWatchdog(trial, " by another thread"); });
    notifyTogether(trial);
    trial.onThread([&] { unregisterWatchdog(trial); });
    trial.result("hangwatch_watchdog_notify, of none", hangwatch_watchdog_notify);
    trial.tellSituation("unregistered some seconds ago");
    trial.iterate(16s); // it is left alone
}

// ---- System properties ----

constexpr int kVersionKey = 128;
constexpr int kUnknownKey = 0x7ffffff0;

int property(Trial& trial, int key, char*& value)
{
    Place<char*> place("the text's place", nullptr);
    const int result =
        trial.result("sysprop_get_value_string", [&] { return sysprop_get_value_string(key, place.get()); });
    value = *place;
    return result;
}

void release(Trial& trial, char* text)
{
    trial.call("free() of a text of sysprop_get_value_string", [text] { std::free(text); });
}

void tryVersion(Trial& trial)
{
    char* first = nullptr;
    const int result = property(trial, kVersionKey, first);
    const bool isTold =
        trial.require(result == 0 && first != nullptr, FindingId::NoVersion,
                      first == nullptr && result == 0 ? "there is no text" : "key 128" + resultIs(result));
    if (!isTold || first == nullptr) {
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
    for (const int key : {kUnknownKey, -1, INT_MIN, INT_MAX}) {
        const int result = property(trial, key, value);
        trial.require(result != 0 || value != nullptr, FindingId::ValueWithoutText,
                      "key " + std::to_string(key) + ": the result is 0, and the text is null");
        if (result == 0 && value != nullptr) {
            release(trial, value);
        }
    }
}

// ---- Packages ----

// An identifier whose text and whose object are gone with the call, and whose memory nobody may touch then. A
// long one has its text elsewhere: it becomes another one.
bool request(Trial& trial, const std::string& package)
{
    common::GuardedBuffer memory("the package's identifier", sizeof(std::string));
    auto* const name = new (memory.as<void>()) std::string(package);
    const bool isTaken = trial.call("ABM_DownloadAppBinary", [&] {
        return appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, *name);
    });
    trial.require(*name == package, FindingId::ArgumentTouched,
                  "the package's identifier " + package.substr(0, 20) + " was changed in place");
    name->assign(name->size(), '#');
    name->~basic_string();
    return isTaken;
}

// The daemon asks for none, but another program of the same set may, and the next version of this one.
struct PackageEnd {
    std::atomic<int> calls{0};
    std::atomic<pid_t> thread{0};
    std::atomic<bool> isInsideCall{false};
    std::atomic<bool> isOther{false}; // the package or the user data
    std::string package;
};

PackageEnd packageEnd; // the callback may come at any time

void onPackage(const std::string& package, int, void* data)
{
    packageEnd.thread = gettid();
    packageEnd.isInsideCall = Trial::isInsideCall();
    packageEnd.isOther = data != &packageEnd || package != packageEnd.package;
    ++packageEnd.calls;
}

bool requestToBeTold(Trial& trial, const std::string& package)
{
    packageEnd.package = package;
    const bool isTaken = trial.call("ABM_DownloadAppBinary", [&] {
        return appbinaryManager::ABM_DownloadAppBinary(onPackage, &packageEnd, package);
    });
    trial.iterate(2s, [] { return packageEnd.calls > 0; });
    return isTaken;
}

// Some time after the request: it may be told once more.
void judgePackageCallback(Trial& trial, bool isTaken)
{
    const PackageEnd& end = packageEnd;
    trial.require(end.calls == 0 || end.thread == getpid(), FindingId::PackageCallback,
                  "on thread " + std::to_string(end.thread) + ", while the main loop runs on " +
                      std::to_string(getpid()));
    trial.require(!end.isInsideCall, FindingId::PackageCallback, "inside the call that asks for the package");
    trial.require(isTaken || end.calls == 0, FindingId::PackageCallback, "of a request that was not taken");
    trial.require(!end.isOther, FindingId::PackageCallback, "of another package, or with other user data");
    trial.require(end.calls <= 1, FindingId::PackageCallback,
                  std::to_string(end.calls) + " times for one request");
}

std::string packageOf(const Trial& trial)
{
    const std::string& known = trial.options().package;
    return known.empty() ? "empNobodysOwn" : known; // it fits into the object itself
}

void askForPackage(Trial& trial)
{
    tellTaken(trial, request(trial, packageOf(trial)));
}

void tryPackages(Trial& trial)
{
    const std::string& known = trial.options().package;
    const std::string package = packageOf(trial);
    const bool isTaken = request(trial, package);
    if (!isTaken && judgeRefusal(trial, "package-asker", "ABM_DownloadAppBinary")) {
        return;
    }
    if (known.empty() && !isTaken) {
        trial.note("a package that the store may not have is refused: give one that it has with --package");
    } else {
        trial.require(isTaken, FindingId::PackageRefused, package);
    }
    trial.iterate(700ms); // its end has nobody to be told to
    const bool isTakenToBeTold = requestToBeTold(trial, package);
    for (const std::string& odd :
         {"emp" + std::string(200, 'X'), std::string("emp with blanks"), std::string("emp%s%n"),
          std::string("../emp"), std::string("emp\xC3\xA4"), std::string(4000, 'e'), std::string()}) {
        request(trial, odd);
    }
    trial.iterate(300ms);
    for (const Trial::Context context : {Trial::Context::kNone, Trial::Context::kOwn}) {
        trial.onThread([&] { packageOnce(trial); }, context);
    }
    judgePackageCallback(trial, isTakenToBeTold);
    const bool isTakenAgain = request(trial, package);
    trial.require(isTakenAgain == isTaken, FindingId::PackageRefused,
                  package + (isTaken ? " is not taken" : " is taken") + " any more after other requests");
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

int setApplication(Trial& trial, applaunch_h request, const std::string& application = kUnknownApplication)
{
    GuardedBuffer text("the application", application);
    return trial.result("applaunch_set_app_id",
                        [&] { return applaunch_set_app_id(request, text.as<const char>()); });
}

applaunch_h create(Trial& trial)
{
    Place<applaunch_h> place("the request's place", nullptr);
    const int result = trial.result("applaunch_create", [&] { return applaunch_create(place.get()); });
    trial.require(result == 0 && *place != nullptr, FindingId::RequestNotCreated,
                  result == 0 ? "success was said, and the handle is null" : "created" + resultIs(result));
    return *place;
}

void fill(Trial& trial, applaunch_h request)
{
    static const std::string longText(5000, 't');
    const std::pair<const char*, const char*> extras[] = {{"updatetype", "general"},
                                                          {"timeinfo", "130"},
                                                          {"uitype", "select"},
                                                          {"timeinfo", "131"},
                                                          {"empty", ""},
                                                          {"long", longText.c_str()},
                                                          {"timeinfo", "soon"},
                                                          {"timeinfo", ""},
                                                          {"timeinfo", "-1"},
                                                          {"timeinfo", "99999999999999999999"},
                                                          {"updatetype", ""},
                                                          {"uitype", "\xC3\xA4"},
                                                          {longText.c_str(), "key"},
                                                          {"odd", "a=b&c;\"d\" %s%n\n"},
                                                          {"more words", "\xC3\xA4"}};
    for (const auto& [key, value] : extras) {
        const int added = add(trial, request, key, value);
        trial.require(added == 0, FindingId::RequestNotFilled,
                      "key \"" + std::string(key).substr(0, 20) + "\", value \"" +
                          std::string(value).substr(0, 20) + "\"" + resultIs(added));
    }
    for (int extra = 1; extra <= 10; ++extra) {
        const int added = add(trial, request, ("key" + std::to_string(extra)).c_str(), "value");
        if (!trial.require(added == 0, FindingId::RequestNotFilled,
                           "one of many pairs, the " + std::to_string(extra) + "th" + resultIs(added))) {
            break;
        }
    }
    for (const std::string& application :
         {std::string(300, 'a'), std::string("org.pellor.\"odd\" %s \xC3\xA4"),
          std::string(kUnknownApplication)}) {
        const int set = setApplication(trial, request, application);
        trial.require(set == 0, FindingId::RequestNotFilled, application.substr(0, 60) + resultIs(set));
    }
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

void askForLaunch(Trial& trial)
{
    const applaunch_h request = create(trial);
    if (request != nullptr) {
        setApplication(trial, request);
        tellTaken(trial, send(trial, request) == 0);
        destroy(trial, request);
    }
}

// ---- Launches that fail first ----

// A request without an application cannot be launched; one that has failed so is still good for the next try.
void tryAfterFailures(Trial& trial, bool isUnknownTaken)
{
    const applaunch_h request = create(trial);
    if (request == nullptr) {
        return;
    }
    constexpr int kFailures = 8; // the daemon's ninth may be the one
    bool hasFailed = true;
    for (int attempt = 0; attempt < kFailures && hasFailed; ++attempt) {
        hasFailed = send(trial, request) != 0;
    }
    if (hasFailed && isUnknownTaken) {
        const int set = setApplication(trial, request);
        const int sent = send(trial, request);
        trial.require(set == 0 && sent == 0, FindingId::LaunchGivenUp,
                      "the ninth launch of one request, after eight that had failed" +
                          resultIs(set == 0 ? sent : set));
    }
    destroy(trial, request);
}

// Some at a time, and none takes another's place.
void tryManyRequests(Trial& trial)
{
    constexpr std::size_t kMany = 6; // a set has places for some
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(1s).count();
    std::vector<applaunch_h> requests;
    while (requests.size() < kMany && common::realNow() < end) {
        const applaunch_h request = create(trial);
        if (request == nullptr) {
            break;
        }
        const bool isNew = std::find(requests.begin(), requests.end(), request) == requests.end();
        if (!trial.require(isNew, FindingId::RequestNotCreated,
                           "of " + std::to_string(requests.size() + 1) + " requests two have one handle")) {
            break;
        }
        requests.push_back(request);
    }
    for (const applaunch_h request : requests) {
        const int set = setApplication(trial, request);
        trial.require(set == 0, FindingId::RequestNotFilled,
                      "one of " + std::to_string(requests.size()) + " requests" + resultIs(set));
    }
    for (const applaunch_h request : requests) {
        destroy(trial, request);
    }
}

// ---- Replies ----

// The daemon asks for none; whoever does hears of it where callbacks come.
std::string answeringApplication(const Trial& trial)
{
    const std::string& known = trial.options().application;
    return known.empty() ? kUnknownApplication : known;
}

struct Reply {
    std::atomic<int> calls{0};
    std::atomic<pid_t> thread{0};
    std::atomic<bool> isInsideCall{false};
    std::atomic<bool> isOther{false}; // the request or the user data
    applaunch_h request = nullptr;
};

Reply launchReply;

void onReply(applaunch_h request, int, void* data)
{
    launchReply.thread = gettid();
    launchReply.isInsideCall = Trial::isInsideCall();
    launchReply.isOther = request != launchReply.request || data != &launchReply;
    ++launchReply.calls;
}

// Requests that are destroyed before their replies have come.
std::atomic<int> repliesToDestroyed{0};

void onReplyToDestroyed(applaunch_h, int, void* isDestroyed)
{
    repliesToDestroyed += *static_cast<std::atomic<bool>*>(isDestroyed) ? 1 : 0;
}

void destroyBeforeReply(Trial& trial, std::atomic<bool>& isDestroyed)
{
    const applaunch_h request = create(trial);
    if (request == nullptr) {
        return;
    }
    setApplication(trial, request, answeringApplication(trial));
    trial.result("applaunch_send_launch_request",
                 [&] { return applaunch_send_launch_request(request, onReplyToDestroyed, &isDestroyed); });
    destroy(trial, request);
    isDestroyed = true;
}

void judgeReply(Trial& trial)
{
    launchReply.request = create(trial);
    if (launchReply.request == nullptr) {
        return;
    }
    setApplication(trial, launchReply.request, answeringApplication(trial));
    const int sent = trial.result("applaunch_send_launch_request", [] {
        return applaunch_send_launch_request(launchReply.request, onReply, &launchReply);
    });
    if (!trial.options().application.empty()) {
        trial.iterate(3s, [] { return launchReply.calls > 0; });
    }
    trial.iterate(300ms);
    const int before = launchReply.calls;
    destroy(trial, launchReply.request);
    trial.iterate(200ms);
    trial.require(launchReply.calls == before, FindingId::LaunchReply, "after the request was destroyed");
    trial.require(before == 0 || launchReply.thread == getpid(), FindingId::LaunchReply,
                  "on thread " + std::to_string(launchReply.thread) + ", while the main loop runs on " +
                      std::to_string(getpid()));
    trial.require(!launchReply.isInsideCall, FindingId::LaunchReply, "inside the call that launches");
    trial.require(!launchReply.isOther, FindingId::LaunchReply,
                  "of another request, or with other user data");
    trial.require(before <= 1 && (sent == 0 || before == 0), FindingId::LaunchReply,
                  std::to_string(before) + " times for one launch" + resultIs(sent));
}

// Whatever comes later: a request of the same address, a reply from a slow application.
void tryDestroyingBeforeReplies(Trial& trial)
{
    static std::atomic<bool> isDestroyedHere{false};
    static std::atomic<bool> isDestroyedElsewhere{false};
    destroyBeforeReply(trial, isDestroyedHere);
    trial.onThread([&] { destroyBeforeReply(trial, isDestroyedElsewhere); });
    judgeReply(trial);
    trial.iterate(trial.options().application.empty() ? 1s : 4s, [] { return repliesToDestroyed > 0; });
    trial.require(repliesToDestroyed == 0, FindingId::LaunchReply,
                  "after the request was destroyed, before its reply had come");
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
    bool isTaken = false;
    for (int attempt = 0; attempt < 2 && !isTaken; ++attempt) {
        trial.iterate(attempt * 500ms);
        isTaken = send(trial, first) == 0;
    }
    destroy(trial, first);
    if (!isTaken) {
        judgeRefusal(trial, "launch-asker", "applaunch_send_launch_request");
    }
    trial.iterate(700ms); // the reply has nobody to be told to
    const int added = add(trial, second, "later", "1");
    trial.require(added == 0, FindingId::RequestNotFilled,
                  "after another request was destroyed" + resultIs(added));
    destroy(trial, second);
    tryAfterFailures(trial, isTaken);
    tryManyRequests(trial);
    for (const Trial::Context context : {Trial::Context::kNone, Trial::Context::kOwn}) {
        trial.onThread([&] { launchOnce(trial); }, context);
    }
    tryDestroyingBeforeReplies(trial);
}

void tryNullRequest(Trial& trial)
{
    struct Refused {
        const char* name;
        int (*call)();
    };
    constexpr Refused kAll[] = {
        {"applaunch_add_extra_data",
         [] { return applaunch_add_extra_data(nullptr, "updatetype", "general"); }},
        {"applaunch_set_app_id", [] { return applaunch_set_app_id(nullptr, kUnknownApplication); }},
        {"applaunch_send_launch_request",
         [] { return applaunch_send_launch_request(nullptr, nullptr, nullptr); }},
        {"applaunch_destroy", [] { return applaunch_destroy(nullptr); }}};
    for (const Refused& one : kAll) {
        const int result = trial.call(one.name, one.call);
        trial.require(result < 0, FindingId::NullRequestTaken, one.name + resultIs(result));
    }
}

} // namespace

std::vector<TrialKind> serviceTrials()
{
    return {{"flags", tryFlags},
            {"flags-shared", tryFlagsOfOthers},
            {"flag-raiser", raiseFlag},
            {"flag-lowerer", lowerFlag},
            {"flag-changer", changeBeside},
            {"flags-later", tryLater},
            {"watchdog", tryWatchdog},
            {"property", tryVersion},
            {"no-property", tryNoValue},
            {"package", tryPackages},
            {"package-asker", askForPackage},
            {"launch", tryLaunch},
            {"launch-asker", askForLaunch},
            {"null-launch", tryNullRequest}};
}

} // namespace platformcheck
