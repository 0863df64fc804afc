// pralis.h: the daemon's own keys, whose values are put back at the end of the check.

#include <algorithm>
#include <atomic>
#include <climits>
#include <fstream>
#include <gio/gio.h>
#include <initializer_list>
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

// `value` is what stands there afterwards.
int get(Trial& trial, const char* key, int& value)
{
    GuardedBuffer text("the key", std::string(key));
    Place<int> place("the value", value);
    const int result =
        trial.result("pralis_get_int", [&] { return pralis_get_int(text.as<const char>(), place.get()); });
    value = *place;
    return result;
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

// Where bits, digits and bytes end.
constexpr int kValues[] = {1,      0,         100,        -1,         70000,     INT_MAX,    INT_MIN,
                           42,     42,        255,        256,        -128,      32768,      65535,
                           -32769, 16777217,  -16777217,  0x12345678, 999999999, 1000000007, -1000000000,
                           12,     987654321, -987654321, 2,          -2};

void tryEachValue(Trial& trial)
{
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(4s).count();
    for (const int value : kValues) {
        if (common::realNow() > end || !write(trial, kProgress, value)) {
            return;
        }
        expectValue(trial, kProgress, value);
    }
}

// What cannot be read leaves the value alone.
void tryUnreadable(Trial& trial)
{
    for (const std::string& key :
         {std::string(kUnknown), std::string(), std::string(3000, 'k'), std::string(kStatus) + "_other"}) {
        int untouched = kUntouched;
        const int result = get(trial, key.c_str(), untouched);
        trial.require(result == 0 || untouched == kUntouched, FindingId::TouchedOnFailure,
                      "the result is " + std::to_string(result) + ", and " + std::to_string(untouched) +
                          " stands there");
    }
}

// Each key is the last one that is written, and the others have what they had.
void tryNeighbours(Trial& trial)
{
    for (const char* const last : kWritten) {
        for (const int value : {3, -3}) {
            for (const char* const key : kWritten) {
                write(trial, key, 70);
            }
            write(trial, last, value);
            for (const char* const key : kWritten) {
                expectValue(trial, key, key == last ? value : 70,
                            key == last ? FindingId::WrongValue : FindingId::OtherKeyChanged);
            }
        }
    }
    write(trial, kProgress, 77);
}

void tryValues(Trial& trial)
{
    int mirroring = kUntouched; // nobody writes it
    const bool hasMirroring = get(trial, kMirroring, mirroring) == 0;
    int number = 10;
    for (const char* const key : kWritten) {
        write(trial, key, ++number);
    }
    number = 10;
    for (const char* const key : kWritten) {
        expectValue(trial, key, ++number, FindingId::OtherKeyChanged);
    }
    tryEachValue(trial);
    expectValue(trial, kStatus, 11, FindingId::OtherKeyChanged);
    expectValue(trial, kWorking, 13, FindingId::OtherKeyChanged);
    tryNeighbours(trial);
    tryUnreadable(trial);
    expectValue(trial, kProgress, 77, FindingId::OtherKeyChanged); // also after reads that have failed
    if (hasMirroring) {
        expectValue(trial, kMirroring, mirroring, FindingId::OtherKeyChanged);
    }
    write(trial, kWorking, 0);
    write(trial, kProgress, valueOf(trial)); // for the next trial, which is another process
}

// A value that another process has written after a look at it here. What is known here may hang on the main
// loop, which must not matter.
void tryOthersWrite(Trial& trial, Trial::Loop loop)
{
    write(trial, kStatus, 0);
    expectValue(trial, kStatus, 0);
    trial.onThread([&] { expectValue(trial, kStatus, 0); });
    trial.runBeside("settings-writer", loop);
    expectValue(trial, kStatus, valueOf(trial) + 1, FindingId::NotShared);
    trial.onThread([&] { expectValue(trial, kStatus, valueOf(trial) + 1, FindingId::NotShared); });
}

// One key, written and read for a moment.
void keepWriting(Trial& trial, const char* key, const std::function<bool()>& isOver)
{
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(150ms).count();
    for (int value = 1; common::realNow() < end && !isOver() && !trial.hasFound(); ++value) {
        if (write(trial, key, value)) {
            expectValue(trial, key, value);
        }
    }
}

void writeBeside(Trial& trial)
{
    keepWriting(trial, kStatus, [] { return false; });
}

// Two processes write a key each, as the daemon and its UI do.
void tryBesideAnother(Trial& trial)
{
    std::atomic<bool> isOver{false};
    std::thread beside([&] {
        trial.runBeside("settings-busy", Trial::Loop::kStands);
        isOver = true;
    });
    while (!isOver && !trial.hasFound()) {
        keepWriting(trial, kProgress, [&] { return isOver.load(); });
    }
    beside.join();
}

void tryOtherProcess(Trial& trial)
{
    expectValue(trial, kProgress, valueOf(trial), FindingId::NotShared);
    write(trial, kProgress, 0);
    tryOthersWrite(trial, Trial::Loop::kRuns);
    tryOthersWrite(trial, Trial::Loop::kStands);
    tryBesideAnother(trial);
    write(trial, kProgress, valueOf(trial) + 2);
    trial.runBeside("settings-reader", Trial::Loop::kStands);
    // Threads of one process know no more and no less.
    trial.onThread([&] { write(trial, kProgress, 5); });
    expectValue(trial, kProgress, 5);
    write(trial, kProgress, 6);
    trial.onThread([&] { expectValue(trial, kProgress, 6); });
    write(trial, kProgress, valueOf(trial)); // as it was, as this trial may be made once more
}

void tryReading(Trial& trial)
{
    expectValue(trial, kProgress, valueOf(trial) + 2, FindingId::NotShared);
}

// ---- Notifications ----

struct Note {
    char who;
    bool hasNode;
    int value;
    void* data;
    pid_t thread;
    bool isInsideCall;
    bool isSteady; // the node, while the callback makes calls
};

// What the callbacks have heard. They are plain functions, and come on any thread.
std::mutex heardMutex;
std::vector<Note> heard;
Trial* trialOfKeys = nullptr;

template <char who>
void onChanged(keynode* node, void* data)
{
    const bool isInside = Trial::isInsideCall();
    const auto valueOfNode = [node] {
        return node == nullptr ? 0 : trialOfKeys->call("pralis_keynode_get_int", [node] {
            return pralis_keynode_get_int(node);
        });
    };
    const int value = valueOfNode();
    int other = 0;
    get(*trialOfKeys, kWorking, other);
    const bool isSteady = valueOfNode() == value;
    const std::lock_guard<std::mutex> lock(heardMutex);
    heard.push_back({who, node != nullptr, value, data, gettid(), isInside, isSteady});
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

void judgeNote(Trial& trial, const Note& note)
{
    trial.require(note.thread == getpid(), FindingId::CallbackThread,
                  "on thread " + std::to_string(note.thread) + ", while the main loop runs on " +
                      std::to_string(getpid()));
    trial.require(!note.isInsideCall, FindingId::CallbackThread, "inside the call that has changed the key");
    trial.require(note.hasNode, FindingId::CallbackArguments, "the node is null");
    trial.require(note.isSteady, FindingId::NotifiedWrongValue,
                  "the node had another value once the callback had read a key");
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
        judgeNote(trial, note);
        const bool isOther = note.hasNode && note.value != value; // perhaps what another is told
        trial.require(!isOther, FindingId::NotifiedWrongValue,
                      std::to_string(note.value) + " was told, " + std::to_string(value) + " was written");
        trial.require(isOther || note.data == data, FindingId::CallbackArguments,
                      "the user data is not that of the subscription");
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

// One callback for two keys, as a program may have it: each subscription is one of its own.
void tryOneOfTwoKeys(Trial& trial)
{
    if (subscribe(trial, kStatus, onChanged<'D'>, &dataOfStatus) != 0 ||
        subscribe(trial, kProgress, onChanged<'D'>, &dataOfProgress) != 0) {
        return;
    }
    forgetHeard();
    write(trial, kStatus, 20);
    expectHeard(trial, 'D', 20, &dataOfStatus, "one callback listens to two keys");
    forgetHeard();
    write(trial, kProgress, 21);
    expectHeard(trial, 'D', 21, &dataOfProgress, "one callback listens to two keys");
    unsubscribe(trial, kStatus, onChanged<'D'>);
    forgetHeard();
    write(trial, kStatus, 22);
    write(trial, kProgress, 23);
    expectHeard(trial, 'D', 23, &dataOfProgress, "after the end of the same callback for another key",
                FindingId::OthersUnsubscribed);
    unsubscribe(trial, kProgress, onChanged<'D'>);
}

void tryNotifications(Trial& trial)
{
    trialOfKeys = &trial;
    for (const char* const key : {kStatus, kUnknown}) { // what never began may fail, and does no harm
        trial.call("pralis_ignore_key_changed",
                   [=] { return pralis_ignore_key_changed(key, onChanged<'E'>); });
    }
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
    tryOneOfTwoKeys(trial);
}

// ---- Notifications and threads ----

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

void trySubscribingOn(Trial& trial, const char* what, Trial::Context context)
{
    trial.onThread([&] { subscribe(trial, kStatus, onChanged<'A'>, &dataOfStatus); }, context);
    forgetHeard();
    std::thread writer([&] { write(trial, kStatus, 3); });
    expectHeard(trial, 'A', 3, &dataOfStatus, std::string("subscribed on ") + what);
    writer.join();
    trial.onThread([&] { unsubscribe(trial, kStatus, onChanged<'A'>); }, context);
    forgetHeard();
    write(trial, kStatus, 1);
    trial.iterate(250ms);
    expectSilence(trial, 'A', FindingId::AfterUnsubscribe, std::string("ended on ") + what);
}

// Different values from 1 on, more than a short queue takes; the last one.
std::size_t writeInARow(Trial& trial)
{
    constexpr int kMost = 80;
    constexpr int kLeast = 6;
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(2s).count();
    int value = 0;
    while (value < kMost && (value < kLeast || common::realNow() < end)) {
        write(trial, kStatus, ++value);
    }
    return static_cast<std::size_t>(value);
}

void judgeRow(Trial& trial, std::size_t count)
{
    std::vector<int> values;
    for (const Note& note : heardBy('A')) {
        values.push_back(note.value);
    }
    const std::string row = "of " + std::to_string(count) + " changes in a row ";
    const bool isAnyLast = std::count(values.begin(), values.end(), static_cast<int>(count)) > 0;
    trial.require(values.size() >= count, FindingId::NotNotified,
                  row + std::to_string(values.size()) + " were told within 2.5 s" +
                      (isAnyLast ? "" : ", and not the last one"));
    trial.require(values.size() <= count, FindingId::NotifiedTwice,
                  row + std::to_string(values.size()) + " were told");
    trial.require(!isAnyLast || std::is_sorted(values.begin(), values.end()), FindingId::NotifiedInDisorder,
                  row + "some were told in disorder");
    const bool isEachOnce = std::adjacent_find(values.begin(), values.end()) == values.end();
    trial.require(values.size() != count || isEachOnce, FindingId::NotifiedWrongValue,
                  row + "one value was told more than once");
}

void tryOrder(Trial& trial)
{
    subscribe(trial, kStatus, onChanged<'A'>, &dataOfStatus);
    subscribe(trial, kStatus, onChanged<'B'>, &dataOfProgress);
    forgetHeard();
    const std::size_t count = writeInARow(trial);
    trial.iterate(2500ms, [=] { return heardBy('A').size() >= count && heardBy('B').size() >= count; });
    trial.iterate(60ms);
    judgeRow(trial, count);
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

// What waits to be told when a subscription ends, or begins anew, is not told any more.
void tryWaiting(Trial& trial)
{
    const auto writeElsewhere = [&](std::initializer_list<int> values) {
        std::thread([&] {
            for (const int value : values) {
                write(trial, kStatus, value);
            }
        }).join();
        g_usleep(60'000); // on its way, and the main loop stands
    };
    subscribe(trial, kStatus, onChanged<'A'>, &dataOfStatus);
    forgetHeard();
    writeElsewhere({1, 2, 3});
    trial.onThread([&] { unsubscribe(trial, kStatus, onChanged<'A'>); });
    forgetHeard();
    trial.iterate(400ms);
    expectSilence(trial, 'A', FindingId::AfterUnsubscribe,
                  "a change before the end, which another thread has made, was told after it");
    subscribe(trial, kStatus, onChanged<'A'>, &dataOfStatus);
    forgetHeard();
    writeElsewhere({4, 5});
    unsubscribe(trial, kStatus, onChanged<'A'>);
    subscribe(trial, kStatus, onChanged<'A'>, &dataOfProgress);
    forgetHeard();
    trial.iterate(300ms);
    expectSilence(trial, 'A', FindingId::NotifiedWithoutChange,
                  "a change before the subscription, and before the end of the one before it, was told");
    forgetHeard();
    write(trial, kStatus, 6);
    expectHeard(trial, 'A', 6, &dataOfProgress, "subscribed anew while changes waited");
    unsubscribe(trial, kStatus, onChanged<'A'>);
}

std::vector<std::pair<int, bool>> heardInside; // the value, and whether it came inside a call

// Writes the key that it listens to, and subscribes to another.
void onChangedAndWrites(keynode* node, void*)
{
    const bool isInside = Trial::isInsideCall();
    heardInside.emplace_back(pralis_keynode_get_int(node), isInside);
    if (heardInside.size() == 1) {
        write(*trialOfKeys, kStatus, 2);
        subscribe(*trialOfKeys, kProgress, onChanged<'B'>, &dataOfProgress);
    }
}

void tryCallsInside(Trial& trial)
{
    write(trial, kStatus, 0);
    trial.iterate(20ms);
    if (subscribe(trial, kStatus, onChangedAndWrites, nullptr) != 0) {
        return;
    }
    write(trial, kStatus, 1);
    trial.iterate(4s, [] { return heardInside.size() >= 2; });
    trial.require(heardInside.size() == 2 && heardInside.back().first == 2, FindingId::NotNotified,
                  "a callback has written its own key: " + std::to_string(heardInside.size()) +
                      " changes of two were told");
    trial.require(heardInside.size() < 2 || !heardInside.back().second, FindingId::CallbackThread,
                  "inside the call by which a callback has written its own key");
    unsubscribe(trial, kStatus, onChangedAndWrites);
    forgetHeard();
    write(trial, kProgress, 33);
    expectHeard(trial, 'B', 33, &dataOfProgress, "subscribed inside a callback");
    unsubscribe(trial, kProgress, onChanged<'B'>);
}

// A key that no other trial writes from here on.
std::filesystem::path keptForLater(const Trial& trial)
{
    return trial.options().work / "working";
}

void leaveForLater(Trial& trial)
{
    if (write(trial, kWorking, valueOf(trial) + 3)) {
        std::ofstream(keptForLater(trial)) << "written\n";
    }
}

void tryLater(Trial& trial)
{
    if (std::filesystem::exists(keptForLater(trial))) {
        expectValue(trial, kWorking, valueOf(trial) + 3);
    }
}

void tryThreads(Trial& trial)
{
    trialOfKeys = &trial;
    write(trial, kStatus, 0);
    trySubscribingOn(trial, "a thread that has ended", Trial::Context::kNone);
    trySubscribingOn(trial, "a thread with a main context of its own", Trial::Context::kOwn);
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
    tryWaiting(trial);
    tryCallsInside(trial);
    leaveForLater(trial);
}

} // namespace

std::vector<TrialKind> settingsTrials()
{
    return {{"settings-save", trySaving},         {"settings", tryValues},
            {"settings-shared", tryOtherProcess}, {"notifications", tryNotifications},
            {"notification-threads", tryThreads}, {"settings-writer", tryWriting},
            {"settings-reader", tryReading},      {"settings-later", tryLater},
            {"settings-busy", writeBeside},       {"settings-restore", tryRestoring}};
}

} // namespace platformcheck
