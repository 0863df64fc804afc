#include "fake-platform.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <ostream>
#include <sstream>

#include "appbinary_manager.h"
#include "flagpost.h"
#include "hangwatch.h"
#include "norlog.h"
#include "ps_mount.h"
#include "sysprop.h"
#include "trace_logger.h"

namespace fs = std::filesystem;

namespace
{

// Every record ends with this errno: a caller that relies on a log call to keep `errno` is found out.
constexpr int kErrnoAfterLog = EBADMSG;

__attribute__((format(printf, 1, 0))) std::string formatted(const char* format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int reason = errno; // "%m" is evaluated twice
    const int length = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<size_t>(std::max(length, 0)) + 1, '\0');
    errno = reason;
    vsnprintf(text.data(), text.size(), format, arguments);
    text.pop_back();
    return text;
}

std::string quoted(const char* text)
{
    return text != nullptr ? "\"" + std::string(text) + "\"" : "null";
}

std::string orEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

// "file.cpp: function(12) > text" into its parts; a record without that prefix is all text.
void splitPrefix(LogRecord& record)
{
    const size_t end = record.text.find(" > ");
    const size_t colon = record.text.find(": ");
    const size_t open = record.text.rfind('(', end);
    if (end == std::string::npos || colon == std::string::npos || open == std::string::npos || colon > open) {
        return;
    }
    record.prefix = record.text.substr(0, end + 3);
    record.file = record.text.substr(0, colon);
    record.function = record.text.substr(colon + 2, open - colon - 2);
    record.line = atoi(record.text.c_str() + open + 1);
    record.text.erase(0, end + 3);
}

// The trace recorder's copy of what the platform log has just received.
bool isSameMessage(const LogRecord& platform, const LogRecord& trace)
{
    return platform.sink == LogSink::kPlatformOnly && trace.sink == LogSink::kTraceOnly &&
           platform.priority == trace.priority && platform.text == trace.text &&
           platform.thread == trace.thread;
}

const char* name(LogSink sink)
{
    switch (sink) {
    case LogSink::kPlatformOnly:
        return "platform log only";
    case LogSink::kTraceOnly:
        return "trace recorder only";
    case LogSink::kBoth:
        break;
    }
    return "both logs";
}

const char* functionOf(MountOperation operation)
{
    switch (operation) {
    case MountOperation::kMknod:
        return "PS_Mknod";
    case MountOperation::kUmount:
        return "PS_Umount";
    case MountOperation::kMount:
        break;
    }
    return "PS_Mount";
}

} // namespace

bool operator==(const LogLine& left, const LogLine& right)
{
    return left.sink == right.sink && left.priority == right.priority && left.text == right.text;
}

std::ostream& operator<<(std::ostream& out, const LogLine& line)
{
    return out << name(line.sink) << ", priority " << line.priority << ": \"" << line.text << '"';
}

bool operator==(const PowerLock& left, const PowerLock& right)
{
    return left.kind == right.kind && left.durationMs == right.durationMs;
}

std::ostream& operator<<(std::ostream& out, const PowerLock& lock)
{
    return out << "kind " << lock.kind << " for " << lock.durationMs << " ms";
}

FakePlatform& fakePlatform()
{
    static auto* const platform = new FakePlatform; // never destroyed: detached threads may outlive main
    return *platform;
}

void FakePlatform::reset()
{
    const std::lock_guard<std::mutex> lock(mutex);
    state = State();
}

// ---- Calls in general ----

std::vector<std::string> FakePlatform::calls() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.calls;
}

int FakePlatform::countCalls(const std::string& function) const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return static_cast<int>(
        std::count_if(state.calls.begin(), state.calls.end(),
                      [&](const std::string& call) { return call.rfind(function + "(", 0) == 0; }));
}

void FakePlatform::answer(const std::string& function, int result)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.answers[function].always = result;
}

void FakePlatform::answerInTurn(const std::string& function, std::vector<int> results)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.answers[function].inTurn.assign(results.begin(), results.end());
}

void FakePlatform::onCall(const std::string& function, std::function<void()> action)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.actions[function] = std::move(action);
}

std::optional<int> FakePlatform::enter(const std::string& function, const std::string& arguments,
                                       const std::string& key)
{
    std::function<void()> action;
    std::optional<int> scripted;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        state.calls.push_back(function + "(" + arguments + ")");
        const auto known = state.actions.find(function);
        action = known != state.actions.end() ? known->second : nullptr;
        for (const std::string& script : {function + ":" + key, function}) {
            const auto answers = state.answers.find(script);
            if (scripted || answers == state.answers.end()) {
                continue;
            }
            scripted = answers->second.always;
            if (!answers->second.inTurn.empty()) {
                scripted = answers->second.inTurn.front();
                answers->second.inTurn.pop_front();
            }
        }
    }
    if (action) {
        action();
    }
    return scripted;
}

// ---- Log ----

std::vector<LogLine> FakePlatform::log() const
{
    // Per thread: the lines of others may stand between the two records of one message.
    std::vector<LogLine> lines;
    std::map<std::thread::id, std::pair<LogRecord, size_t>> unpaired;
    for (const LogRecord& record : logRecords()) {
        const auto last = unpaired.find(record.thread);
        if (last != unpaired.end() && isSameMessage(last->second.first, record)) {
            lines[last->second.second].sink = LogSink::kBoth;
            unpaired.erase(last);
            continue;
        }
        unpaired.insert_or_assign(record.thread, std::pair(record, lines.size()));
        lines.push_back({record.sink, record.priority, record.text});
    }
    return lines;
}

std::vector<LogRecord> FakePlatform::logRecords() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.log;
}

void FakePlatform::clearLog()
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.log.clear();
}

void FakePlatform::onLog(std::function<void(const std::string& text)> action)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.logAction = std::move(action);
}

void FakePlatform::keepLog(LogRecord record)
{
    std::function<void(const std::string&)> action;
    const std::string text = record.text;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        state.log.push_back(std::move(record));
        action = state.logAction;
    }
    if (action) {
        action(text);
    }
}

int __norlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    LogRecord record{LogSink::kPlatformOnly,    log_id, priority, orEmpty(tag), "", "", "", 0, "",
                     std::this_thread::get_id()};
    record.text = formatted(format, arguments);
    va_end(arguments);
    splitPrefix(record);
    fakePlatform().keepLog(std::move(record));
    errno = kErrnoAfterLog;
    return 0;
}

void TraceLogger::record(int priority, const char* file, const char* function, int line, const char* format,
                         ...)
{
    va_list arguments;
    va_start(arguments, format);
    LogRecord record{LogSink::kTraceOnly,       0, priority, "", "", file, function, line, "",
                     std::this_thread::get_id()};
    record.text = formatted(format, arguments);
    va_end(arguments);
    fakePlatform().keepLog(std::move(record));
    errno = kErrnoAfterLog;
}

// ---- Settings ----

void FakePlatform::setSetting(const std::string& key, int value)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.settings[key] = value;
}

std::optional<int> FakePlatform::setting(const std::string& key) const
{
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = state.settings.find(key);
    return found != state.settings.end() ? std::optional<int>(found->second) : std::nullopt;
}

std::vector<std::pair<std::string, int>> FakePlatform::settingWrites() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.settingWrites;
}

int FakePlatform::changeSetting(const std::string& key, int value)
{
    setSetting(key, value);
    keynode node{key, value};
    return callSettingSubscribers(key, &node);
}

int FakePlatform::fireNullNode(const std::string& key)
{
    return callSettingSubscribers(key, nullptr);
}

bool FakePlatform::isSubscribed(const std::string& key) const
{
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = state.settingSubscribers.find(key);
    return found != state.settingSubscribers.end() && !found->second.empty();
}

int FakePlatform::callSettingSubscribers(const std::string& key, keynode* node)
{
    std::vector<Subscriber<pralis_key_changed_cb>> subscribers;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        subscribers = state.settingSubscribers[key];
    }
    for (const auto& subscriber : subscribers) {
        subscriber.callback(node, subscriber.userData);
    }
    return static_cast<int>(subscribers.size());
}

int FakePlatform::subscribe(const std::string& key, pralis_key_changed_cb callback, void* userData)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.settingSubscribers[key].push_back({callback, userData});
    return 0;
}

namespace
{

// Removes the first subscription with that callback; as on the set, there must be one.
template <typename Subscribers, typename Callback>
int removeSubscriber(Subscribers& subscribers, Callback callback)
{
    const auto found = std::find_if(subscribers.begin(), subscribers.end(),
                                    [&](const auto& subscriber) { return subscriber.callback == callback; });
    if (found == subscribers.end()) {
        return -1;
    }
    subscribers.erase(found);
    return 0;
}

} // namespace

int FakePlatform::ignore(const std::string& key, pralis_key_changed_cb callback)
{
    const std::lock_guard<std::mutex> lock(mutex);
    return removeSubscriber(state.settingSubscribers[key], callback);
}

int FakePlatform::writeSetting(const std::string& key, int value)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.settings[key] = value;
    state.settingWrites.emplace_back(key, value);
    return 0;
}

int pralis_get_int(const char* key, int* value)
{
    const std::optional<int> scripted = fakePlatform().enter("pralis_get_int", quoted(key), orEmpty(key));
    const std::optional<int> stored = fakePlatform().setting(orEmpty(key));
    if (scripted.value_or(0) != 0 || !stored) {
        return scripted.value_or(0) != 0 ? *scripted : -1;
    }
    *value = *stored;
    return 0;
}

int pralis_set_int(const char* key, int value)
{
    const std::optional<int> scripted =
        fakePlatform().enter("pralis_set_int", quoted(key) + ", " + std::to_string(value), orEmpty(key));
    return scripted.value_or(0) != 0 ? *scripted : fakePlatform().writeSetting(orEmpty(key), value);
}

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    const std::optional<int> scripted =
        fakePlatform().enter("pralis_notify_key_changed", quoted(key), orEmpty(key));
    return scripted.value_or(0) != 0 ? *scripted : fakePlatform().subscribe(orEmpty(key), cb, user_data);
}

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    const std::optional<int> scripted =
        fakePlatform().enter("pralis_ignore_key_changed", quoted(key), orEmpty(key));
    return scripted.value_or(0) != 0 ? *scripted : fakePlatform().ignore(orEmpty(key), cb);
}

int pralis_keynode_get_int(const keynode* node)
{
    return node->value;
}

// ---- Power ----

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

// ---- Launches ----

struct applaunch {
    LaunchAttempt attempt;
};

std::vector<LaunchAttempt> FakePlatform::launches() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.launches;
}

int FakePlatform::openLaunchRequests() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.openLaunchRequests;
}

void FakePlatform::countLaunchRequest(int change)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.openLaunchRequests += change;
}

void FakePlatform::keepLaunch(LaunchAttempt attempt)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.launches.push_back(std::move(attempt));
}

int applaunch_create(applaunch_h* request)
{
    const int scripted = fakePlatform().enter("applaunch_create", "").value_or(0);
    if (scripted != 0) {
        return scripted; // `*request` stays as it was
    }
    *request = new applaunch();
    fakePlatform().countLaunchRequest(1);
    return 0;
}

int applaunch_destroy(applaunch_h request)
{
    const int scripted = fakePlatform().enter("applaunch_destroy", "").value_or(0);
    if (request == nullptr) {
        return -1;
    }
    delete request;
    fakePlatform().countLaunchRequest(-1);
    return scripted;
}

int applaunch_add_extra_data(applaunch_h request, const char* key, const char* value)
{
    const std::string arguments = quoted(key) + ", " + quoted(value);
    const int scripted =
        fakePlatform().enter("applaunch_add_extra_data", arguments, orEmpty(key)).value_or(0);
    if (request == nullptr || scripted != 0) {
        return scripted != 0 ? scripted : -1;
    }
    request->attempt.extras.emplace_back(orEmpty(key), orEmpty(value));
    return 0;
}

int applaunch_set_app_id(applaunch_h request, const char* app_id)
{
    const int scripted = fakePlatform().enter("applaunch_set_app_id", quoted(app_id)).value_or(0);
    if (request == nullptr || scripted != 0) {
        return scripted != 0 ? scripted : -1;
    }
    request->attempt.appId = orEmpty(app_id);
    return 0;
}

int applaunch_send_launch_request(applaunch_h request, applaunch_reply_cb cb, void*)
{
    const int scripted = fakePlatform().enter("applaunch_send_launch_request", "").value_or(0);
    if (request == nullptr) {
        return -1;
    }
    LaunchAttempt attempt = request->attempt;
    attempt.wantsReply = cb != nullptr;
    attempt.result = scripted;
    fakePlatform().keepLaunch(std::move(attempt));
    return scripted;
}

// ---- Packages, system information, flags, watchdog ----

std::vector<std::string> FakePlatform::packageRequests() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.packageRequests;
}

int FakePlatform::completePackageRequests(int status)
{
    std::vector<std::function<void(int)>> completions;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        completions.swap(state.packageCompletions);
    }
    for (const auto& complete : completions) {
        complete(status);
    }
    return static_cast<int>(completions.size());
}

void FakePlatform::keepPackageRequest(std::string id, std::function<void(int status)> complete)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.packageRequests.push_back(std::move(id));
    if (complete) {
        state.packageCompletions.push_back(std::move(complete));
    }
}

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

bool appbinaryManager::ABM_DownloadAppBinary(DownloadCallback cb, void* user_data,
                                             const std::string& package_id)
{
    const std::string arguments = std::string(cb != nullptr ? "callback" : "null") + ", " +
                                  (user_data != nullptr ? "data" : "null") + ", " +
                                  quoted(package_id.c_str());
    const bool taken = fakePlatform().enter("ABM_DownloadAppBinary", arguments).value_or(1) != 0;
    std::function<void(int)> complete;
    if (cb != nullptr && taken) {
        complete = [=](int status) { cb(package_id, status, user_data); };
    }
    fakePlatform().keepPackageRequest(package_id, std::move(complete));
    return taken;
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

// ---- Mount service ----

std::vector<MountRequest> FakePlatform::mountRequests() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.mountRequests;
}

std::vector<MountRequest> FakePlatform::mountRequests(MountOperation operation) const
{
    std::vector<MountRequest> requests = mountRequests();
    requests.erase(
        std::remove_if(requests.begin(), requests.end(),
                       [&](const MountRequest& request) { return request.operation != operation; }),
        requests.end());
    return requests;
}

void FakePlatform::answerMount(MountOperation operation, std::vector<MountAnswer> answers)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.mountAnswers[operation].inTurn.assign(answers.begin(), answers.end());
}

void FakePlatform::alwaysAnswerMount(MountOperation operation, MountAnswer answer)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.mountAnswers[operation].always = answer;
}

std::vector<std::string> FakePlatform::mountedDirectories() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> directories;
    for (const Mounted& one : state.mounted) {
        directories.push_back(one.directory);
    }
    return directories;
}

std::optional<MountAnswer> FakePlatform::scriptedMountAnswer(MountOperation operation)
{
    MountAnswers& answers = state.mountAnswers[operation];
    if (answers.inTurn.empty()) {
        return answers.always;
    }
    const MountAnswer next = answers.inTurn.front();
    answers.inTurn.pop_front();
    return next;
}

namespace
{

void emptyDirectory(const fs::path& directory)
{
    for (const auto& entry : fs::directory_iterator(directory)) {
        fs::remove_all(entry.path());
    }
}

// What the mount point shows: the tree of the image on top, or nothing.
void showTree(const std::string& image, const std::string& directory)
{
    emptyDirectory(directory);
    fs::copy(image + ".tree", directory, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
}

} // namespace

MountAnswer FakePlatform::mountImage(const std::string& command)
{
    std::istringstream words(command);
    std::string option;
    std::string options;
    std::string image;
    std::string directory;
    if (!(words >> option >> options >> image >> directory) || option != "-o") {
        return {-1, EINVAL};
    }
    if (!fs::is_directory(directory)) {
        return {-1, fs::exists(directory) ? ENOTDIR : ENOENT};
    }
    if (!fs::is_regular_file(image) || !fs::is_directory(image + ".tree")) {
        return {-1, EINVAL};
    }
    showTree(image, directory);
    state.mounted.push_back({image, directory});
    return {0, 0};
}

MountAnswer FakePlatform::unmountDirectory(const std::string& directory)
{
    const auto onDirectory = [&](const Mounted& one) { return one.directory == directory; };
    const auto top = std::find_if(state.mounted.rbegin(), state.mounted.rend(), onDirectory);
    if (top == state.mounted.rend()) {
        return {-1, EINVAL};
    }
    state.mounted.erase(std::next(top).base());
    const auto below = std::find_if(state.mounted.rbegin(), state.mounted.rend(), onDirectory);
    if (below != state.mounted.rend()) {
        showTree(below->image, directory);
    } else {
        emptyDirectory(directory);
    }
    return {0, 0};
}

int FakePlatform::serveMount(MountRequest request, int* result)
{
    enter(functionOf(request.operation), quoted(request.text.c_str()));
    const std::lock_guard<std::mutex> lock(mutex);
    const MountOperation operation = request.operation;
    const std::string text = request.text;
    state.mountRequests.push_back(std::move(request));
    MountAnswer answer{0, 0};
    if (const std::optional<MountAnswer> scripted = scriptedMountAnswer(operation)) {
        answer = *scripted;
    } else if (operation == MountOperation::kMount) {
        answer = mountImage(text);
    } else if (operation == MountOperation::kUmount) {
        answer = unmountDirectory(text);
    }
    *result = answer.result;
    return answer.retVal;
}

namespace
{

MountRequest commandRequest(MountOperation operation, const char* command, int length, int flags, int result)
{
    const std::string buffer(command, static_cast<size_t>(length));
    return {operation, buffer.c_str(), buffer, length, flags, result};
}

} // namespace

int PS_Mount(const char* command, int length, int flags, int* result)
{
    return fakePlatform().serveMount(commandRequest(MountOperation::kMount, command, length, flags, *result),
                                     result);
}

int PS_Mknod(const char* command, int length, int flags, int* result)
{
    return fakePlatform().serveMount(commandRequest(MountOperation::kMknod, command, length, flags, *result),
                                     result);
}

int PS_Umount(const char* directory, int length, int flags, int* result)
{
    return fakePlatform().serveMount(
        commandRequest(MountOperation::kUmount, directory, length, flags, *result), result);
}
