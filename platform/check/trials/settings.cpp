// pralis.h: the daemon's own keys, whose values are put back at the end of the check.

#include <algorithm>
#include <atomic>
#include <climits>
#include <fstream>
#include <gio/gio.h>
#include <thread>
#include <unistd.h>

#include "common/process/guarded-buffer.h"
#include "platform/check/trials/trial.h"
#include "pralis.h"

namespace platformcheck
{

namespace
{

using common::GuardedBuffer;

constexpr const char* kMirroring = "memory/menu/network/screenmirroring/smsrc_status";
constexpr const char* kUnknown = "memory/tarnwick/platform_check/no_such_key";
constexpr const char* kWritten[] = {kStatus, kProgress, kWorking};

int set(Trial& trial, const char* key, int value)
{
    GuardedBuffer text("the key", std::string(key));
    return trial.result("pralis_set_int", [&] { return pralis_set_int(text.as<const char>(), value); });
}

int get(Trial& trial, const char* key, int& value)
{
    GuardedBuffer text("the key", std::string(key));
    return trial.result("pralis_get_int", [&] { return pralis_get_int(text.as<const char>(), &value); });
}

std::string written(const char* key, int value)
{
    return std::to_string(value) + " was written to " + key;
}

bool write(Trial& trial, const char* key, int value)
{
    const int result = set(trial, key, value);
    return trial.require(result == 0, FindingId::NotWritten,
                         std::string(key) + ": the result is " + std::to_string(result));
}

// ---- Values ----

constexpr int kUntouched = 0x5A17C0DE;

void expectValue(Trial& trial, const char* key, int value, FindingId otherwise = FindingId::WrongValue)
{
    int read = kUntouched;
    const int result = get(trial, key, read);
    if (trial.require(result == 0, FindingId::NotRead,
                      std::string(key) + ": the result is " + std::to_string(result))) {
        trial.require(read == value, otherwise,
                      written(key, value) + (read == kUntouched ? ", and no value was given"
                                                                : ", " + std::to_string(read) + " was read"));
    }
}

int valueOf(const Trial& trial)
{
    return 100000 + static_cast<int>(trial.options().token % 100000);
}

std::filesystem::path savedValues(const Trial& trial)
{
    return trial.options().work / "settings";
}

void trySaving(Trial& trial)
{
    std::ofstream out(savedValues(trial));
    for (const char* const key : kWritten) {
        int value = 0;
        const bool isRead = get(trial, key, value) == 0;
        out << (isRead ? value : 0) << '\n'; // a key cannot be taken away again
    }
}

void tryRestoring(Trial& trial)
{
    std::ifstream in(savedValues(trial));
    for (const char* const key : kWritten) {
        int value = 0;
        if (in >> value) {
            set(trial, key, value);
        }
    }
}

void tryValues(Trial& trial)
{
    for (const int value : {1, 0, 100, -1, 70000, INT_MAX, INT_MIN, 42, 42}) {
        if (!write(trial, kProgress, value)) {
            return;
        }
        expectValue(trial, kProgress, value);
    }
    int number = 10;
    for (const char* const key : kWritten) {
        write(trial, key, ++number);
    }
    number = 10;
    for (const char* const key : kWritten) {
        expectValue(trial, key, ++number, FindingId::OtherKeyChanged);
    }
    int untouched = kUntouched;
    const int result = get(trial, kUnknown, untouched);
    trial.require(result == 0 || untouched == kUntouched, FindingId::TouchedOnFailure,
                  "the result is " + std::to_string(result) + ", and " + std::to_string(untouched) +
                      " stands there");
    write(trial, kWorking, 0);
    write(trial, kProgress, valueOf(trial)); // for the next trial, which is another process
}

void tryOtherProcess(Trial& trial)
{
    expectValue(trial, kProgress, valueOf(trial), FindingId::NotShared);
    write(trial, kProgress, 0);
    write(trial, kStatus, 0);
    expectValue(trial, kStatus, 0);
    trial.runBeside("settings-writer"); // what was read here is another value now
    expectValue(trial, kStatus, valueOf(trial) + 1, FindingId::NotShared);
}

// ---- Notifications ----

struct Note {
    char who;
    bool hasNode;
    int value;
    void* data;
    pid_t thread;
    bool isInsideCall;
};

// What the callbacks have heard. They are plain functions, and come on any thread.
std::mutex heardMutex;
std::vector<Note> heard;
Trial* trialOfKeys = nullptr;

template <char who>
void onChanged(keynode* node, void* data)
{
    const bool isInside = Trial::isInsideCall();
    const int value = node == nullptr ? 0 : trialOfKeys->call("pralis_keynode_get_int", [node] {
        return pralis_keynode_get_int(node);
    });
    const std::lock_guard<std::mutex> lock(heardMutex);
    heard.push_back({who, node != nullptr, value, data, gettid(), isInside});
}

std::vector<Note> heardBy(char who)
{
    const std::lock_guard<std::mutex> lock(heardMutex);
    std::vector<Note> own;
    std::copy_if(heard.begin(), heard.end(), std::back_inserter(own),
                 [who](const Note& note) { return note.who == who; });
    return own;
}

void forgetHeard()
{
    const std::lock_guard<std::mutex> lock(heardMutex);
    heard.clear();
}

int subscribe(Trial& trial, const char* key, pralis_key_changed_cb callback, void* data)
{
    GuardedBuffer text("the key", std::string(key));
    const int result = trial.result("pralis_notify_key_changed", [&] {
        return pralis_notify_key_changed(text.as<const char>(), callback, data);
    });
    trial.require(result == 0, FindingId::NotSubscribed,
                  std::string(key) + ": the result is " + std::to_string(result));
    return result;
}

void unsubscribe(Trial& trial, const char* key, pralis_key_changed_cb callback)
{
    GuardedBuffer text("the key", std::string(key));
    const int result = trial.result("pralis_ignore_key_changed", [&] {
        return pralis_ignore_key_changed(text.as<const char>(), callback);
    });
    trial.require(result == 0, FindingId::NotUnsubscribed,
                  std::string(key) + ": the result is " + std::to_string(result));
}

void judgeNote(Trial& trial, const Note& note, void* data)
{
    trial.require(note.thread == getpid(), FindingId::CallbackThread,
                  "on thread " + std::to_string(note.thread) + ", while the main loop runs on " +
                      std::to_string(getpid()));
    trial.require(!note.isInsideCall, FindingId::CallbackThread, "inside the call that has changed the key");
    trial.require(note.hasNode, FindingId::CallbackArguments, "the node is null");
    trial.require(note.data == data, FindingId::CallbackArguments,
                  "the user data is not that of the subscription");
}

// Whether `who` hears of the value, soon and in good order.
bool expectHeard(Trial& trial, char who, int value, void* data, const std::string& situation,
                 FindingId otherwise = FindingId::NotNotified)
{
    const bool isHeard = trial.iterate(2s, [who] { return !heardBy(who).empty(); });
    if (!trial.require(isHeard, otherwise, situation + ": no callback came within 2 s")) {
        return false;
    }
    trial.iterate(60ms); // one more would be one too many
    const std::vector<Note> notes = heardBy(who);
    for (const Note& note : notes) {
        judgeNote(trial, note, data);
        trial.require(!note.hasNode || note.value == value, FindingId::NotifiedWrongValue,
                      std::to_string(note.value) + " was told, " + std::to_string(value) + " was written");
    }
    trial.require(notes.size() == 1, FindingId::NotifiedTwice,
                  situation + ": " + std::to_string(notes.size()) + " callbacks for one change");
    return true;
}

void expectSilence(Trial& trial, char who, FindingId otherwise, const std::string& situation)
{
    trial.require(heardBy(who).empty(), otherwise, situation);
}

// In a process beside the other trials, as the upgrade UI does.
void tryWriting(Trial& trial)
{
    write(trial, kStatus, valueOf(trial) + 1);
}

int dataOfStatus = 0;
int dataOfProgress = 0;

void tryOneByOne(Trial& trial)
{
    for (const int value : {1, 2, 3, 4, 300, -4}) {
        forgetHeard();
        if (!write(trial, kStatus, value) ||
            !expectHeard(trial, 'A', value, &dataOfStatus, written(kStatus, value))) {
            return;
        }
        expectSilence(trial, 'B', FindingId::NotifiedOfOther,
                      written(kStatus, value) + ", and who listens to another key was told");
    }
    forgetHeard();
    write(trial, kProgress, 7);
    expectHeard(trial, 'B', 7, &dataOfProgress, written(kProgress, 7));
    expectSilence(trial, 'A', FindingId::NotifiedOfOther,
                  written(kProgress, 7) + ", and who listens to another key was told");
    forgetHeard();
    trial.runBeside("settings-writer");
    expectHeard(trial, 'A', valueOf(trial) + 1, &dataOfStatus, "another process has written");
}

void tryEnding(Trial& trial)
{
    unsubscribe(trial, kStatus, onChanged<'A'>);
    forgetHeard();
    write(trial, kStatus, 1);
    write(trial, kProgress, 9);
    expectHeard(trial, 'B', 9, &dataOfProgress, "after the end of another subscription",
                FindingId::OthersUnsubscribed);
    trial.iterate(250ms);
    expectSilence(trial, 'A', FindingId::AfterUnsubscribe, "a change after the end was told");

    subscribe(trial, kStatus, onChanged<'A'>, &dataOfStatus);
    forgetHeard();
    write(trial, kStatus, 2);
    expectHeard(trial, 'A', 2, &dataOfStatus, "subscribed anew");
    forgetHeard();
    for (const int value : {1, 2, 3}) { // these wait until the main loop runs, after the end
        write(trial, kStatus, value);
    }
    unsubscribe(trial, kStatus, onChanged<'A'>);
    forgetHeard();
    trial.iterate(400ms);
    expectSilence(trial, 'A', FindingId::AfterUnsubscribe, "a change before the end was told after it");
    unsubscribe(trial, kProgress, onChanged<'B'>);
}

void tryNotifications(Trial& trial)
{
    trialOfKeys = &trial;
    write(trial, kStatus, 0);
    write(trial, kProgress, 0);
    trial.iterate(400ms); // what is told of it is not for who subscribes now
    if (subscribe(trial, kStatus, onChanged<'A'>, &dataOfStatus) != 0 ||
        subscribe(trial, kProgress, onChanged<'B'>, &dataOfProgress) != 0) {
        return;
    }
    trial.iterate(300ms);
    expectSilence(trial, 'A', FindingId::NotifiedWithoutChange, "right after the subscription");
    expectSilence(trial, 'B', FindingId::NotifiedWithoutChange, "right after the subscription");
    tryOneByOne(trial);
    tryEnding(trial);
}

// ---- Notifications and threads ----

void onThread(const std::function<void()>& work)
{
    std::thread(work).join();
}

// A thread's own context is not run by anybody.
void onThreadWithContext(const std::function<void()>& work)
{
    std::thread([&] {
        GMainContext* const context = g_main_context_new();
        g_main_context_push_thread_default(context);
        work();
        g_main_context_pop_thread_default(context);
        g_main_context_unref(context);
    }).join();
}

std::atomic<int> keyEndedItself{0};

// What the daemon's own callbacks do, and more: they call back.
void onChangedOnce(keynode*, void*)
{
    int value = 0;
    get(*trialOfKeys, kWorking, value);
    set(*trialOfKeys, kWorking, 0);
    unsubscribe(*trialOfKeys, kStatus, onChangedOnce);
    ++keyEndedItself;
}

void trySubscribingOn(Trial& trial, const char* what, void (*run)(const std::function<void()>&))
{
    run([&] { subscribe(trial, kStatus, onChanged<'A'>, &dataOfStatus); });
    forgetHeard();
    std::thread writer([&] { write(trial, kStatus, 3); });
    expectHeard(trial, 'A', 3, &dataOfStatus, std::string("subscribed on ") + what);
    writer.join();
    run([&] { unsubscribe(trial, kStatus, onChanged<'A'>); });
    forgetHeard();
    write(trial, kStatus, 1);
    trial.iterate(250ms);
    expectSilence(trial, 'A', FindingId::AfterUnsubscribe, std::string("ended on ") + what);
}

void tryOrder(Trial& trial)
{
    subscribe(trial, kStatus, onChanged<'A'>, &dataOfStatus);
    subscribe(trial, kStatus, onChanged<'B'>, &dataOfProgress);
    forgetHeard();
    constexpr int kLast = 6;
    for (int value = 1; value <= kLast; ++value) {
        write(trial, kStatus, value);
    }
    for (const char who : {'A', 'B'}) { // each of them within two seconds after the one before
        std::size_t count = 0;
        do {
            count = heardBy(who).size();
        } while (count < kLast && trial.iterate(2s, [=] { return heardBy(who).size() > count; }));
    }
    std::vector<int> values;
    for (const Note& note : heardBy('A')) {
        values.push_back(note.value);
    }
    const bool isAnyLast = std::count(values.begin(), values.end(), kLast) > 0;
    trial.require(values.size() >= kLast, FindingId::NotNotified,
                  "of " + std::to_string(kLast) + " changes in a row " + std::to_string(values.size()) +
                      " were told" + (isAnyLast ? "" : ", and not the last one"));
    trial.require(!isAnyLast || std::is_sorted(values.begin(), values.end()), FindingId::NotifiedInDisorder,
                  std::to_string(kLast) + " changes were told in disorder");
    const bool isEachOnce =
        values.size() == kLast && std::adjacent_find(values.begin(), values.end()) == values.end();
    trial.require(values.size() != kLast || isEachOnce, FindingId::NotifiedWrongValue,
                  "of " + std::to_string(kLast) + " changes in a row one value was told more than once");
    unsubscribe(trial, kStatus, onChanged<'A'>);
    forgetHeard();
    write(trial, kStatus, 5);
    expectHeard(trial, 'B', 5, &dataOfProgress, "after the end of another callback's subscription",
                FindingId::OthersUnsubscribed);
    unsubscribe(trial, kStatus, onChanged<'B'>);
}

// The main loop is busy with calls when another thread writes: what is told of it waits until they are over.
void tryInsideCalls(Trial& trial)
{
    if (subscribe(trial, kStatus, onChanged<'A'>, &dataOfStatus) != 0) {
        return;
    }
    forgetHeard();
    for (const int value : {1, 2, 3, 4}) {
        std::thread([&] { write(trial, kStatus, value); }).join();
        g_usleep(20'000); // it is on its way
        int read = 0;
        get(trial, kWorking, read);
        set(trial, kProgress, value);
    }
    trial.iterate(100ms);
    for (const Note& note : heardBy('A')) {
        trial.require(!note.isInsideCall, FindingId::CallbackThread, "inside a call of another key");
    }
    unsubscribe(trial, kStatus, onChanged<'A'>);
}

void tryThreads(Trial& trial)
{
    trialOfKeys = &trial;
    write(trial, kStatus, 0);
    trySubscribingOn(trial, "a thread that has ended", onThread);
    trySubscribingOn(trial, "a thread with a main context of its own", onThreadWithContext);
    if (subscribe(trial, kStatus, onChangedOnce, nullptr) == 0) {
        for (const int value : {2, 3, 4}) { // the later ones wait when the first is told
            write(trial, kStatus, value);
        }
        trial.iterate(2s, [] { return keyEndedItself > 0; });
        write(trial, kStatus, 5);
        trial.iterate(200ms);
        trial.require(keyEndedItself <= 1, FindingId::AfterUnsubscribe,
                      "the callback had ended its own subscription");
    }
    // Mirroring is another's key: it is listened to and not written.
    if (subscribe(trial, kMirroring, onChanged<'C'>, nullptr) == 0) {
        unsubscribe(trial, kMirroring, onChanged<'C'>);
    }
    tryOrder(trial);
    tryInsideCalls(trial);
}

} // namespace

std::vector<TrialKind> settingsTrials()
{
    return {{"settings-save", trySaving},         {"settings", tryValues},
            {"settings-shared", tryOtherProcess}, {"notifications", tryNotifications},
            {"notification-threads", tryThreads}, {"settings-writer", tryWriting},
            {"settings-restore", tryRestoring}};
}

} // namespace platformcheck
