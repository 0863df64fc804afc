// pralis.h
#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <glib.h>
#include <thread>
#include <unistd.h>

#include "pralis.h"
#include "tests/platform/proof.h"

namespace proof
{

namespace
{

constexpr const char* kKey = "proof/one";
constexpr const char* kOtherKey = "proof/other";
constexpr const char* kStatusKey = "memory/ep_firmware_update_app/fw_update_status";
constexpr const char* kProgressKey = "memory/ep_firmware_update_app/fw_update_progress";

struct Told {
    int value;
    std::thread::id thread;
    void* data;
};

std::vector<Told> toldValues;

void noteValue(keynode* node, void* data)
{
    toldValues.push_back({pralis_keynode_get_int(node), std::this_thread::get_id(), data});
}

int valueOf(const char* key)
{
    int value = -99;
    pralis_get_int(key, &value);
    return value;
}

// One change, and what is told of it within a moment after the first.
void changeOnce(int value)
{
    pralis_set_int(kKey, 1);
    pralis_notify_key_changed(kKey, noteValue, &toldValues);
    pralis_set_int(kKey, value);
    until([] { return !toldValues.empty(); }, kLong);
    runLoop(300);
}

std::string keptValue(int value)
{
    pralis_set_int(kKey, 5);
    pralis_set_int(kKey, value);
    return valueOf(kKey) == value ? "" : "another value is read";
}

std::string toldValue()
{
    changeOnce(9);
    return toldValues.size() == 1 && toldValues[0].value == 9 ? "" : "another value was told";
}

std::string toldThread()
{
    changeOnce(9);
    return !toldValues.empty() && toldValues[0].thread == std::this_thread::get_id()
               ? ""
               : "told on another thread";
}

std::string toldThreadOfAnothersWrite()
{
    pralis_set_int(kKey, 1);
    pralis_notify_key_changed(kKey, noteValue, nullptr);
    std::thread([] { pralis_set_int(kKey, 2); }).join();
    until([] { return !toldValues.empty(); }, kLong);
    return !toldValues.empty() && toldValues[0].thread == std::this_thread::get_id()
               ? ""
               : "told on the writer's thread";
}

std::string toldAfterIgnore()
{
    changeOnce(9);
    pralis_ignore_key_changed(kKey, noteValue);
    toldValues.clear();
    pralis_set_int(kKey, 3);
    runLoop(500);
    return toldValues.empty() ? "" : "told after the end of the subscription";
}

template <int who>
void noteOneOf(keynode* node, void* data)
{
    noteValue(node, data);
}

std::string nineListeners()
{
    constexpr pralis_key_changed_cb kAll[] = {noteOneOf<1>, noteOneOf<2>, noteOneOf<3>,
                                              noteOneOf<4>, noteOneOf<5>, noteOneOf<6>,
                                              noteOneOf<7>, noteOneOf<8>, noteOneOf<9>};
    pralis_set_int(kKey, 1);
    for (const pralis_key_changed_cb one : kAll) {
        pralis_notify_key_changed(kKey, one, nullptr);
    }
    pralis_set_int(kKey, 2);
    runLoop(500);
    return toldValues.size() == std::size(kAll) ? ""
                                                : std::to_string(toldValues.size()) + " of nine were told";
}

std::string otherKeyAfterIgnore()
{
    pralis_notify_key_changed(kKey, noteValue, nullptr);
    pralis_notify_key_changed(kOtherKey, noteValue, nullptr);
    pralis_ignore_key_changed(kKey, noteValue);
    pralis_set_int(kOtherKey, 3);
    return until([] { return !toldValues.empty(); }, kLong) ? "" : "the other key's change was not told";
}

std::string eachChange()
{
    pralis_notify_key_changed(kKey, noteValue, nullptr);
    for (int value = 1; value <= 3; ++value) {
        pralis_set_int(kKey, value);
    }
    until([] { return toldValues.size() == 3; }, kLong);
    return toldValues.size() == 3 ? "" : std::to_string(toldValues.size()) + " of three changes were told";
}

std::string eachValue()
{
    pralis_notify_key_changed(kKey, noteValue, nullptr);
    for (int value = 1; value <= 3; ++value) {
        pralis_set_int(kKey, value);
    }
    until([] { return toldValues.size() == 3; }, kLong);
    return toldValues.size() == 3 && toldValues[0].value == 1 && toldValues[1].value == 2
               ? ""
               : "a later value was told";
}

void noteAndIgnore(keynode* node, void* data)
{
    noteValue(node, data);
    pralis_ignore_key_changed(kKey, noteAndIgnore);
}

std::string toldAfterOwnEnd()
{
    pralis_notify_key_changed(kKey, noteAndIgnore, nullptr);
    for (int value = 1; value <= 3; ++value) {
        pralis_set_int(kKey, value);
    }
    runLoop(500);
    return toldValues.size() == 1
               ? ""
               : std::to_string(toldValues.size()) + " times, the first of which has ended it";
}

std::string toldInsideRead()
{
    pralis_set_int(kKey, 1);
    pralis_notify_key_changed(kKey, noteValue, nullptr);
    std::thread([] { pralis_set_int(kKey, 2); }).join();
    for (int time = 0; time < 50 && toldValues.empty(); ++time) {
        usleep(10'000);
        valueOf(kOtherKey);
    }
    return toldValues.empty() ? "" : "told inside a read";
}

// The main loop stands meanwhile.
std::string writtenElsewhereAfterALook()
{
    pralis_set_int(kKey, 1);
    valueOf(kKey);
    inAnotherProcess("--write", kKey);
    return valueOf(kKey) == getpid() ? "" : "what was there before is read";
}

std::string writtenElsewhereWhileSubscribed()
{
    pralis_notify_key_changed(kKey, noteValue, nullptr);
    return writtenElsewhereAfterALook();
}

std::string behindTheValue()
{
    struct {
        int value = 0;
        int behind = 77;
    } place;
    pralis_set_int(kKey, 5);
    pralis_get_int(kKey, &place.value);
    return place.behind == 77 ? "" : "what stands behind the value is another one";
}

std::string sixtyChanges()
{
    pralis_notify_key_changed(kKey, noteValue, nullptr);
    for (int value = 1; value <= 60; ++value) {
        pralis_set_int(kKey, value);
    }
    until([] { return toldValues.size() == 60; }, kLong);
    return toldValues.size() == 60 ? "" : std::to_string(toldValues.size()) + " of sixty were told";
}

std::string longestOfEighty()
{
    using Clock = std::chrono::steady_clock;
    int late = 0;
    for (int value = 1; value <= 80; ++value) {
        const Clock::time_point begin = Clock::now();
        pralis_set_int(kKey, value);
        late += Clock::now() - begin > std::chrono::milliseconds(600) ? 1 : 0;
    }
    return late < 2 ? "" : std::to_string(late) + " of eighty writes were late";
}

int valueAfterARead = 0;

void readInside(keynode* node, void*)
{
    valueOf(kOtherKey);
    valueAfterARead = pralis_keynode_get_int(node);
}

std::string nodeAfterARead()
{
    pralis_set_int(kOtherKey, 3);
    pralis_notify_key_changed(kKey, readInside, nullptr);
    pralis_set_int(kKey, 9);
    until([] { return valueAfterARead != 0; }, kLong);
    return valueAfterARead == 9 ? "" : "after a read the node has another value";
}

std::string newSubscription()
{
    pralis_notify_key_changed(kKey, noteValue, nullptr);
    pralis_set_int(kKey, 4);
    pralis_ignore_key_changed(kKey, noteValue);
    pralis_notify_key_changed(kKey, noteValue, nullptr);
    runLoop(400);
    return toldValues.empty() ? "" : "a change before the subscription was told";
}

std::string readBesideAnother()
{
    pralis_set_int(kKey, 1);
    pralis_set_int(kOtherKey, 2);
    int wrong = 0;
    std::thread other([&] {
        for (int i = 0; i < 100; ++i) {
            wrong += valueOf(kOtherKey) == 2 ? 0 : 1;
        }
    });
    int wrongHere = 0;
    for (int i = 0; i < 100; ++i) {
        wrongHere += valueOf(kKey) == 1 ? 0 : 1;
    }
    other.join();
    return wrong + wrongHere == 0 ? "" : "the other key's value is read";
}

std::string textThatIsGone()
{
    char name[64] = "proof/one";
    pralis_notify_key_changed(name, noteValue, nullptr);
    for (char& character : name) {
        character = '#';
    }
    pralis_set_int(kKey, 3);
    return until([] { return !toldValues.empty(); }, kLong)
               ? ""
               : "not told once the name's memory has something else";
}

// ---- Callbacks that end others, begin others, take their time ----

void endsSecond(keynode* node, void* data);

void endsFirst(keynode* node, void* data)
{
    noteValue(node, data);
    pralis_ignore_key_changed(kKey, endsSecond);
}

void endsSecond(keynode* node, void* data)
{
    noteValue(node, data);
    pralis_ignore_key_changed(kKey, endsFirst);
}

std::string valueToldAfterAnothersEnd()
{
    pralis_notify_key_changed(kKey, endsFirst, nullptr);
    pralis_notify_key_changed(kKey, endsSecond, nullptr);
    pralis_set_int(kKey, 9);
    until([] { return !toldValues.empty(); }, kLong);
    runLoop(200);
    return toldValues.size() == 1 ? ""
                                  : std::to_string(toldValues.size()) + " were told, each ends the other";
}

void beginsAnother(keynode*, void*)
{
    pralis_ignore_key_changed(kKey, beginsAnother);
    pralis_notify_key_changed(kKey, noteValue, nullptr);
}

std::string toldToANewOne()
{
    pralis_notify_key_changed(kKey, beginsAnother, nullptr);
    pralis_set_int(kKey, 9);
    runLoop(400);
    return toldValues.empty() ? "" : "who was subscribed by a callback was told what that was told";
}

std::string toldInOrder()
{
    pralis_set_int(kKey, 0);
    pralis_set_int(kOtherKey, 0);
    pralis_notify_key_changed(kKey, noteValue, nullptr);
    pralis_notify_key_changed(kOtherKey, noteValue, nullptr);
    for (int value = 1; value <= 6; ++value) {
        pralis_set_int(value % 2 == 0 ? kKey : kOtherKey, value);
    }
    until([] { return toldValues.size() == 6; }, kLong);
    for (size_t i = 1; i < toldValues.size(); ++i) {
        if (toldValues[i].value < toldValues[i - 1].value) {
            return std::to_string(toldValues[i].value) + " after " + std::to_string(toldValues[i - 1].value);
        }
    }
    return toldValues.size() == 6 ? "" : "not all were told";
}

std::string toldOfALongerKey()
{
    pralis_set_int(kKey, 1);
    pralis_notify_key_changed("proof/on", noteValue, nullptr);
    pralis_set_int(kKey, 9);
    runLoop(500);
    return toldValues.empty() ? "" : "the change of a key with a longer name was told";
}

std::atomic<bool> hasRead{false};
std::thread reader;
bool wasReadMeanwhile = false;

void staysForAReader(keynode* node, void* data)
{
    noteValue(node, data);
    reader = std::thread([] {
        valueOf(kOtherKey);
        hasRead = true;
    });
    for (int time = 0; time < 300 && !hasRead; ++time) {
        usleep(10'000);
    }
    wasReadMeanwhile = hasRead;
}

std::string readMeanwhile()
{
    pralis_notify_key_changed(kKey, staysForAReader, nullptr);
    pralis_set_int(kKey, 9);
    until([] { return !toldValues.empty(); }, kLong);
    if (!reader.joinable()) {
        return "nothing was told";
    }
    reader.join();
    return wasReadMeanwhile ? "" : "another thread's read has waited for the callback";
}

std::string loopInsideCall()
{
    pralis_notify_key_changed(kKey, noteValue, nullptr);
    static bool isInside = false;
    static bool hasRun = false;
    g_idle_add(
        [](gpointer) -> gboolean {
            hasRun = isInside;
            return G_SOURCE_REMOVE;
        },
        nullptr);
    isInside = true;
    pralis_ignore_key_changed(kKey, noteValue);
    isInside = false;
    return hasRun ? "what waited for the main loop came in the middle of the call" : "";
}

std::string failedRead()
{
    int value = 4711;
    const int result = pralis_get_int("proof/none", &value);
    return result == 0 || (result < 0 && value == 4711) ? "" : "the value was touched";
}

std::string failedReadWithoutException()
{
    try {
        failedRead();
        return "";
    } catch (...) {
        return "an exception";
    }
}

} // namespace

// NOLINTNEXTLINE(readability-function-size): a table
const std::vector<Proof>& settingsProofs()
{
    static const std::vector<Proof> proofs = {
        {"settings-not-kept", [] { return keptValue(getpid()); }},
        {"settings-negative-lost", [] { return keptValue(-1); }},
        {"settings-long-keys-mixed",
         [] {
             pralis_set_int(kStatusKey, 1);
             pralis_set_int(kProgressKey, 77);
             return valueOf(kStatusKey) == 1 ? "" : "one key's write has changed another";
         }},
        {"settings-failure-writes-value", failedRead},
        {"settings-cache-waits-for-loop", writtenElsewhereAfterALook},
        {"settings-value-too-wide", behindTheValue},
        {"settings-neighbour-spoilt",
         [] {
             pralis_set_int(kProgressKey, 77);
             pralis_set_int(kStatusKey, 1);
             return valueOf(kProgressKey) == 77 ? "" : "one key's write has changed another";
         }},
        {"settings-told-fifty-times", sixtyChanges},
        {"settings-slow-now-and-then", longestOfEighty},
        {"settings-node-used-again", nodeAfterARead},
        {"settings-waiting-told-to-next", newSubscription},
        {"settings-told-what-it-is-now", eachValue},
        {"settings-batch-told", toldAfterOwnEnd},
        {"settings-told-inside-get", toldInsideRead},
        {"settings-ended-still-told", valueToldAfterAnothersEnd},
        {"settings-new-told-at-once", toldToANewOne},
        {"settings-told-by-key", toldInOrder},
        {"settings-keys-by-prefix", toldOfALongerKey},
        {"settings-locked-while-told", readMeanwhile},
        {"settings-end-runs-loop", loopInsideCall},
        {"settings-first-value-kept", writtenElsewhereAfterALook},
        {"settings-read-from-told", writtenElsewhereWhileSubscribed},
        {"settings-throws", failedReadWithoutException},
        {"settings-exits", failedRead, 0},
        {"settings-no-notification",
         [] {
             changeOnce(9);
             return toldValues.empty() ? "nothing was told" : "";
         }},
        {"settings-notified-twice",
         [] {
             changeOnce(9);
             return toldValues.size() == 1 ? "" : "told twice";
         }},
        {"settings-user-data-lost",
         [] {
             changeOnce(9);
             return !toldValues.empty() && toldValues[0].data == &toldValues ? ""
                                                                             : "told with another pointer";
         }},
        {"settings-notified-elsewhere", toldThread},
        {"settings-notified-inside-set", toldThreadOfAnothersWrite},
        {"settings-told-after-ignore", toldAfterIgnore},
        {"settings-end-of-none-crashes",
         [] {
             pralis_ignore_key_changed("memory/proof/nobody_ever", noteValue);
             return "";
         },
         128 + SIGABRT},
        {"settings-ignore-ends-all", otherKeyAfterIgnore},
        {"settings-old-value-told", toldValue},
        {"settings-node-gives-status", toldValue},
        {"settings-zero-untold",
         [] {
             changeOnce(0);
             return toldValues.size() == 1 && toldValues[0].value == 0 ? "" : "not told";
         }},
        {"settings-eight-listeners", nineListeners},
        {"settings-changes-merged", eachChange},
        {"settings-set-waits-for-loop", [] { return keptValue(7); }, kHangs},
        {"settings-answers-mixed", readBesideAnother},
        {"settings-key-kept", textThatIsGone},
        {"settings-descriptors-grow",
         [] { return growth("descriptors", openDescriptors, 5, [] { valueOf(kStatusKey); }); }},
        {"settings-threads-grow",
         [] {
             return growth("threads", threads, 5, [] {
                 pralis_notify_key_changed(kKey, noteValue, nullptr);
                 pralis_ignore_key_changed(kKey, noteValue);
             });
         }},
    };
    return proofs;
}

} // namespace proof
