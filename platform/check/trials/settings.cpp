// pralis.h: the daemon's own keys, whose values are put back at the end of the check.

#include <algorithm>
#include <atomic>
#include <climits>
#include <fstream>
#include <gio/gio.h>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <thread>
#include <unistd.h>

#include "platform/check/trials/session.h"
#include "platform/check/trials/settings-calls.h"
#include "platform/check/trials/trial.h"
#include "pralis.h"

namespace platformcheck
{

namespace
{

constexpr const char* kMirroring = "memory/menu/network/screenmirroring/smsrc_status";
constexpr const char* kUnknown = "memory/tarnwick/platform_check/no_such_key";
constexpr const char* kWritten[] = {kStatus, kProgress, kWorking};

// ---- Values ----

constexpr int kUntouched = 0x5A17C0DE;

void expectValue(Trial& trial, const char* key, int value, FindingId otherwise = FindingId::WrongValue,
                 const char* when = "")
{
    int read = kUntouched;
    const int result = get(trial, key, read);
    if (trial.require(result == 0, FindingId::NotRead,
                      std::string(key) + ": the result is " + std::to_string(result))) {
        trial.require(read == value, otherwise,
                      written(key, value) + when +
                          (read == kUntouched ? ", and no value was given"
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

void askForMirroring(Trial& trial)
{
    int value = 0;
    tellTaken(trial, get(trial, kMirroring, value) == 0);
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

// Names that a comparison of a part takes for the key's. No set needs to have them, and they are not written:
// a key cannot be taken away again.
std::vector<std::string> similarKeys(const std::string& key)
{
    const std::string last = key.substr(key.rfind('/') + 1);
    return {key.substr(0, key.size() - 1), key + "_x", key + "/x",
            key.substr(0, key.rfind('/')), last,       "memory/" + last};
}

// What cannot be read leaves the value alone, and what can be has a value of its own.
void tryUnreadable(Trial& trial)
{
    std::vector<std::string> keys = similarKeys(kStatus);
    keys.insert(keys.end(), {kUnknown, "", std::string(3000, 'k'), std::string(kStatus) + "_other"});
    const int own = valueOf(trial) + 9;
    write(trial, kStatus, own);
    for (const std::string& key : keys) {
        int untouched = kUntouched;
        const int result = get(trial, key.c_str(), untouched);
        trial.require(result == 0 || untouched == kUntouched, FindingId::TouchedOnFailure,
                      "the result is " + std::to_string(result) + ", and " + std::to_string(untouched) +
                          " stands there");
        trial.require(result != 0 || untouched != own, FindingId::OtherKeyChanged,
                      written(kStatus, own) + ", and is read from " + key.substr(0, 80) + " as well");
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

// That there is a value of the trial before.
std::filesystem::path leftForOthers(const Trial& trial)
{
    return trial.options().work / "progress";
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
    } else if (!trial.hasFound()) {
        judgeRefusal(trial, "mirroring-asker", "pralis_get_int of a key that the set itself writes");
    }
    write(trial, kWorking, 0);
    if (write(trial, kProgress, valueOf(trial))) { // for the next trial, which is another process
        std::ofstream(leftForOthers(trial)) << "written\n";
    }
}

// A value that another process has written after a look at it here. What is known here may hang on the main
// loop, which must not matter.
void tryOthersWrite(Trial& trial, Trial::Loop loop, const char* when = "")
{
    write(trial, kStatus, 0);
    expectValue(trial, kStatus, 0, FindingId::WrongValue, when);
    trial.onThread([&] { expectValue(trial, kStatus, 0, FindingId::WrongValue, when); });
    trial.runBeside("settings-writer", loop);
    const auto judge = [&] { expectValue(trial, kStatus, valueOf(trial) + 1, FindingId::NotShared, when); };
    judge();
    trial.onThread(judge);
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

void onNothing(keynode*, void*) {}

// What is told of a key is no value to be read: it comes later, and ends with the subscription.
void tryOthersWriteToSubscribers(Trial& trial)
{
    for (const char* const key : {kProgress, kStatus}) {
        if (subscribe(trial, key, onNothing, nullptr) != 0) {
            return;
        }
    }
    tryOthersWrite(trial, Trial::Loop::kStands, ", which this process is subscribed to");
    trial.onThread([&] { write(trial, kStatus, 7); });
    expectValue(trial, kStatus, 7, FindingId::WrongValue,
                " by another thread of this process, which is subscribed to it");
    trial.iterate(20ms); // what was told may be kept from here on
    unsubscribe(trial, kStatus, onNothing);
    tryOthersWrite(trial, Trial::Loop::kStands, ", which this process was subscribed to");
    unsubscribe(trial, kProgress, onNothing);
}

void tryOtherProcess(Trial& trial)
{
    if (std::filesystem::exists(leftForOthers(trial)) && !trial.options().isAgain) {
        // not once more, as the first time may have ended before it was put back
        expectValue(trial, kProgress, valueOf(trial), FindingId::NotShared);
    }
    write(trial, kProgress, 0);
    tryOthersWrite(trial, Trial::Loop::kRuns);
    tryOthersWrite(trial, Trial::Loop::kStands);
    tryOthersWriteToSubscribers(trial);
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
    const char* inside; // of a call; null: of none
    bool isSteady;      // the node, while the callback makes calls
};

// What the callbacks have heard. They are plain functions, and come on any thread.
std::mutex heardMutex;
std::vector<Note> heard;
Trial* trialOfKeys = nullptr;

template <char who>
void onChanged(keynode* node, void* data)
{
    const char* const inside = Trial::callUnderWay();
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
    heard.push_back({who, node != nullptr, value, data, gettid(), inside, isSteady});
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

void judgeNote(Trial& trial, const Note& note)
{
    trial.require(note.thread == getpid(), FindingId::CallbackThread,
                  "on thread " + std::to_string(note.thread) + ", while the main loop runs on " +
                      std::to_string(getpid()));
    trial.require(note.inside == nullptr, FindingId::CallbackThread,
                  std::string("inside ") + (note.inside == nullptr ? "" : note.inside));
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
    if (expectHeard(trial, 'D', 23, &dataOfProgress, "after the end of the same callback for another key",
                    FindingId::OthersUnsubscribed)) {
        unsubscribe(trial, kProgress, onChanged<'D'>);
    } else {
        end(trial, kProgress, onChanged<'D'>); // it may be ended already
    }
}

// Who listens to keys whose names are similar hears of none of it. Where they cannot be subscribed to, there
// is nothing to see.
void trySimilarKeys(Trial& trial)
{
    std::vector<std::string> names = similarKeys(kStatus);
    std::vector<bool> isSubscribed;
    isSubscribed.reserve(names.size());
    for (std::string& name : names) {
        isSubscribed.push_back(begin(trial, name.c_str(), onChanged<'S'>, &name) == 0);
    }
    if (subscribe(trial, kStatus, onChanged<'A'>, &dataOfStatus) == 0) {
        forgetHeard();
        write(trial, kStatus, 24);
        expectHeard(trial, 'A', 24, &dataOfStatus, "others listen to keys with similar names");
        trial.iterate(250ms);
        for (const Note& note : heardBy('S')) {
            const auto name =
                std::find_if(names.begin(), names.end(), [&](std::string& one) { return &one == note.data; });
            trial.found(FindingId::NotifiedOfOther,
                        written(kStatus, 24) + ", and who listens to " +
                            (name == names.end() ? "a key with a similar name" : *name) + " was told");
        }
        unsubscribe(trial, kStatus, onChanged<'A'>);
    }
    for (std::size_t index = 0; index < names.size(); ++index) {
        if (isSubscribed[index]) {
            end(trial, names[index].c_str(), onChanged<'S'>);
        }
    }
}

// One after the other, and told in that order.
void tryKeysInTurn(Trial& trial, const char* one, const char* other)
{
    constexpr int kChanges = 8;
    constexpr int kFirst = 300;
    if (subscribe(trial, kStatus, onChanged<'A'>, &dataOfStatus) != 0 ||
        subscribe(trial, kProgress, onChanged<'B'>, &dataOfProgress) != 0) {
        return;
    }
    forgetHeard();
    for (int change = 0; change < kChanges; ++change) {
        write(trial, change % 2 == 0 ? one : other, kFirst + change);
    }
    const auto count = [] { return heardBy('A').size() + heardBy('B').size(); };
    trial.iterate(2500ms, [&] { return count() >= kChanges; });
    std::vector<int> values;
    {
        const std::lock_guard<std::mutex> lock(heardMutex);
        std::transform(heard.begin(), heard.end(), std::back_inserter(values),
                       [](const Note& note) { return note.value; });
    }
    std::string order;
    for (const int value : values) {
        order += " " + std::to_string(value);
    }
    trial.require(values.size() != kChanges || std::is_sorted(values.begin(), values.end()),
                  FindingId::NotifiedInDisorder,
                  "two keys were written in turn, with rising values, and told was" + order);
    unsubscribe(trial, kStatus, onChanged<'A'>);
    unsubscribe(trial, kProgress, onChanged<'B'>);
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
    trySimilarKeys(trial);
    tryKeysInTurn(trial, kStatus, kProgress);
    tryKeysInTurn(trial, kProgress, kStatus);
}

// ---- Notifications and threads ----

std::atomic<bool> hasKeyEndedItself{false};
std::atomic<int> toldAfterItsEnd{0};

// What the daemon's own callbacks do, and more: they call back.
void onChangedOnce(keynode*, void*)
{
    const char* const inside = Trial::callUnderWay();
    if (!trialOfKeys->require(inside == nullptr, FindingId::CallbackThread,
                              std::string("a callback that ends itself, inside ") +
                                  (inside == nullptr ? "" : inside))) {
        return;
    }
    if (hasKeyEndedItself) {
        ++toldAfterItsEnd;
        return;
    }
    int value = 0;
    get(*trialOfKeys, kWorking, value);
    set(*trialOfKeys, kWorking, 0);
    unsubscribe(*trialOfKeys, kStatus, onChangedOnce);
    hasKeyEndedItself = true;
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
        trial.require(note.inside == nullptr, FindingId::CallbackThread,
                      std::string("of another key, inside ") + (note.inside == nullptr ? "" : note.inside));
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

// ---- A callback that ends another, or begins one ----

// Three that listen; at the first change one of them ends another.
struct Ending {
    const char* key; // of the one that is ended
    const char* what;
    char ender;
    char ended;
    bool isDone = false;
    bool isToldAfter = false;
    pralis_key_changed_cb callback = nullptr;
};

Ending ending;

template <char who>
void onChangedAndEnds(keynode* node, void* data)
{
    ending.isToldAfter = ending.isToldAfter || (who == ending.ended && ending.isDone);
    onChanged<who>(node, data);
    if (who == ending.ender && !ending.isDone) {
        unsubscribe(*trialOfKeys, ending.key, ending.callback);
        ending.isDone = true;
    }
}

struct Watcher {
    char who;
    pralis_key_changed_cb callback;
};
constexpr Watcher kWatchers[] = {
    {'F', onChangedAndEnds<'F'>}, {'G', onChangedAndEnds<'G'>}, {'H', onChangedAndEnds<'H'>}};

void judgeWatchers(Trial& trial)
{
    trial.require(!ending.isToldAfter, FindingId::AfterUnsubscribe,
                  std::string("a callback had ended ") + ending.what);
    for (const Watcher& watcher : kWatchers) {
        const std::size_t times = heardBy(watcher.who).size();
        const bool isEnded = watcher.who == ending.ended;
        trial.require(times <= 1, FindingId::NotifiedTwice,
                      std::string("a callback has ended ") + ending.what + ": " + std::to_string(times) +
                          " callbacks for one change");
        trial.require(times >= 1 || isEnded || !ending.isDone, FindingId::OthersUnsubscribed,
                      std::string("a callback has ended ") + ending.what +
                          ", and who stays subscribed was not told");
    }
}

void tryEndingAnother(Trial& trial, const Ending& one)
{
    static int value = 400;
    const auto keyOf = [&](const Watcher& watcher) { return watcher.who == one.ended ? one.key : kStatus; };
    ending = one;
    for (const Watcher& watcher : kWatchers) {
        ending.callback = watcher.who == one.ended ? watcher.callback : ending.callback;
        if (subscribe(trial, keyOf(watcher), watcher.callback, nullptr) != 0) {
            return;
        }
    }
    forgetHeard();
    write(trial, kStatus, ++value);
    if (one.key != kStatus) {
        write(trial, one.key, ++value);
    }
    trial.iterate(2s, [&] {
        return std::all_of(std::begin(kWatchers), std::end(kWatchers), [&](const Watcher& watcher) {
            return watcher.who == one.ended || !heardBy(watcher.who).empty();
        });
    });
    trial.iterate(40ms);
    judgeWatchers(trial);
    for (const Watcher& watcher : kWatchers) {
        if (watcher.who != one.ended || !ending.isDone) {
            end(trial, keyOf(watcher), watcher.callback);
        }
    }
}

void tryEndingOthers(Trial& trial)
{
    const Ending all[] = {{kStatus, "the next one of its key", 'F', 'G'},
                          {kStatus, "the last one of its key", 'F', 'H'},
                          {kStatus, "the one before it of its key", 'G', 'F'},
                          {kStatus, "the one before it of its key", 'H', 'G'},
                          {kProgress, "one of another key", 'F', 'G'}};
    for (const Ending& one : all) {
        tryEndingAnother(trial, one);
    }
}

std::atomic<bool> hasBegunAnother{false};

void onChangedAndBegins(keynode*, void*)
{
    unsubscribe(*trialOfKeys, kStatus, onChangedAndBegins);
    subscribe(*trialOfKeys, kStatus, onChanged<'G'>, &dataOfStatus);
    hasBegunAnother = true;
}

// What is just told is older than a subscription that is made meanwhile.
void tryBeginningAnother(Trial& trial)
{
    if (subscribe(trial, kStatus, onChangedAndBegins, nullptr) != 0) {
        return;
    }
    forgetHeard();
    write(trial, kStatus, 500);
    if (!trial.iterate(2s, [] { return hasBegunAnother.load(); })) {
        return; // is told elsewhere
    }
    trial.iterate(100ms);
    expectSilence(trial, 'G', FindingId::NotifiedWithoutChange,
                  "a change was told to a subscription that a callback has made while it was told of it");
    forgetHeard();
    write(trial, kStatus, 501);
    expectHeard(trial, 'G', 501, &dataOfStatus, "subscribed by a callback, to its own key");
    unsubscribe(trial, kStatus, onChanged<'G'>);
}

// ---- A callback that takes its time ----

std::optional<Meanwhile> besideCallback;
bool isDoneBeside = false;
std::string callBeside; // that is still under way then

void callMeanwhile()
{
    int value = 0;
    get(*trialOfKeys, kStatus, value);
    set(*trialOfKeys, kProgress, 1);
    begin(*trialOfKeys, kProgress, onChanged<'G'>, nullptr);
    end(*trialOfKeys, kProgress, onChanged<'G'>);
}

std::chrono::nanoseconds mostMeanwhile{0};

void onChangedAndStays(keynode*, void*)
{
    if (!besideCallback) {
        besideCallback.emplace(callMeanwhile);
        isDoneBeside = besideCallback->isOverWithin(mostMeanwhile);
        callBeside = trialOfKeys->oldestCallNow();
    }
}

// Other threads call while a callback is at work.
void tryCallsMeanwhile(Trial& trial)
{
    mostMeanwhile = Meanwhile::timeFor(trial, callMeanwhile);
    if (subscribe(trial, kStatus, onChangedAndStays, nullptr) != 0) {
        return;
    }
    write(trial, kStatus, 510);
    trial.iterate(2s, [] { return besideCallback.has_value(); });
    trial.require(!besideCallback || isDoneBeside, FindingId::Slow,
                  callBeside +
                      " of another thread had not returned while a callback was at work, for seconds");
    besideCallback.reset();
    unsubscribe(trial, kStatus, onChangedAndStays);
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
        trial.iterate(2s, [] { return hasKeyEndedItself.load(); });
        write(trial, kStatus, 5);
        trial.iterate(200ms);
        trial.require(toldAfterItsEnd == 0, FindingId::AfterUnsubscribe,
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
    tryEndingOthers(trial);
    tryBeginningAnother(trial);
    tryCallsMeanwhile(trial);
    leaveForLater(trial);
}

} // namespace

std::vector<TrialKind> settingsTrials()
{
    return {{"settings-save", trySaving},         {"settings", tryValues},
            {"settings-shared", tryOtherProcess}, {"notifications", tryNotifications},
            {"notification-threads", tryThreads}, {"settings-writer", tryWriting},
            {"mirroring-asker", askForMirroring}, {"settings-reader", tryReading},
            {"settings-later", tryLater},         {"settings-busy", writeBeside},
            {"settings-restore", tryRestoring}};
}

} // namespace platformcheck
