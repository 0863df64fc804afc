// Who listens to keys of pralis.h: many at a time, several processes, and each kind of value.

#include <algorithm>
#include <atomic>
#include <climits>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/check/trials/settings-calls.h"
#include "platform/check/trials/trial.h"
#include "pralis.h"

namespace platformcheck
{

namespace
{

constexpr std::size_t kMany = 12; // callbacks, of each key

struct Told {
    std::size_t callback;
    int value;
    void* data;
};

std::mutex toldMutex;
std::vector<Told> told;

template <std::size_t callback>
void onChanged(keynode* node, void* data)
{
    const int value = node == nullptr ? 0 : pralis_keynode_get_int(node);
    const std::lock_guard<std::mutex> lock(toldMutex);
    told.push_back({callback, value, data});
}

template <std::size_t... indices>
std::vector<pralis_key_changed_cb> callbacksOf(std::index_sequence<indices...>)
{
    return {onChanged<indices>...};
}

const std::vector<pralis_key_changed_cb> kCallbacks = callbacksOf(std::make_index_sequence<kMany>());

std::vector<Told> toldSoFar()
{
    const std::lock_guard<std::mutex> lock(toldMutex);
    return told;
}

void forget()
{
    const std::lock_guard<std::mutex> lock(toldMutex);
    told.clear();
}

std::string textOf(const std::vector<int>& values)
{
    std::string text;
    for (const int value : values) {
        text += (text.empty() ? "" : ", ") + std::to_string(value);
    }
    return text.empty() ? "nothing" : text;
}

// What one callback was told must be these values, one after the other.
void expectValues(Trial& trial, const std::vector<int>& values, const std::string& situation)
{
    trial.iterate(2s, [&] { return toldSoFar().size() >= values.size(); });
    trial.iterate(60ms);
    std::vector<int> seen;
    for (const Told& one : toldSoFar()) {
        seen.push_back(one.value);
    }
    if (seen == values) {
        return;
    }
    const FindingId id = seen.size() < values.size()   ? FindingId::NotNotified
                         : seen.size() > values.size() ? FindingId::NotifiedTwice
                         : std::is_permutation(seen.begin(), seen.end(), values.begin())
                             ? FindingId::NotifiedInDisorder
                             : FindingId::NotifiedWrongValue;
    trial.found(id, situation + ": " + textOf(values) + " was written, and told was " + textOf(seen));
}

int dataOfOne = 0;

// Where bits end, and what may be taken for none or for a failure.
void tryValues(Trial& trial)
{
    for (const int value : {7, 0, -1, 70000, -70000, INT_MAX, INT_MIN, 0, 2}) {
        forget();
        if (write(trial, kStatus, value)) {
            expectValues(trial, {value}, "one change");
        }
    }
    const std::vector<int> row = {5, 6, 5, 6, 2};
    forget();
    for (const int value : row) {
        write(trial, kStatus, value);
    }
    expectValues(trial, row, "to and fro, in quick succession");
}

const std::vector<int> kRow = {31, 32, 31, 33, 34};

// In a process beside this one.
void writeRow(Trial& trial)
{
    for (const int value : kRow) {
        write(trial, kStatus, value);
    }
}

constexpr int kOfAnother = 61;

void listenBeside(Trial& trial)
{
    if (subscribe(trial, kStatus, kCallbacks[1], nullptr) == 0 && write(trial, kStatus, kOfAnother)) {
        expectValues(trial, {kOfAnother}, "another process listens as well: there");
        unsubscribe(trial, kStatus, kCallbacks[1]);
    }
}

// Other processes write, listen, and end.
void tryOtherProcesses(Trial& trial)
{
    forget();
    trial.runBeside("row-writer");
    expectValues(trial, kRow, "by another process, in quick succession");
    forget();
    trial.runBeside("listener");
    expectValues(trial, {kOfAnother}, "another process listens as well: here");
    forget();
    write(trial, kStatus, kOfAnother + 1);
    expectValues(trial, {kOfAnother + 1}, "another process has listened, and has ended");
}

// A place is free again when its subscription has ended.
void tryManyInTurn(Trial& trial)
{
    constexpr int kTurns = 60;
    const std::int64_t end = common::realNow() + std::chrono::nanoseconds(2s).count();
    int turns = 0;
    for (; turns < kTurns && common::realNow() < end; ++turns) {
        if (subscribe(trial, kProgress, kCallbacks[2], nullptr) != 0) {
            return;
        }
        unsubscribe(trial, kProgress, kCallbacks[2]);
    }
    if (subscribe(trial, kProgress, kCallbacks[2], nullptr) == 0) {
        forget();
        write(trial, kProgress, 41);
        expectValues(trial, {41}, "after " + std::to_string(turns) + " subscriptions that have ended");
        unsubscribe(trial, kProgress, kCallbacks[2]);
    }
}

// Each callback by its number, with what it was told: those from `first` to the one before `end` listen.
void judgeMany(Trial& trial, int value, std::size_t first, std::size_t end, const int* data,
               const std::string& situation)
{
    trial.iterate(2s, [&] { return toldSoFar().size() >= end - first; });
    trial.iterate(60ms);
    std::map<std::size_t, std::size_t> times;
    for (const Told& one : toldSoFar()) {
        ++times[one.callback];
        trial.require(one.value == value, FindingId::NotifiedWrongValue,
                      situation + ": " + std::to_string(one.value) + " was told, " + std::to_string(value) +
                          " was written");
        trial.require(one.data == data + one.callback, FindingId::CallbackArguments,
                      situation + ": the user data is not that of the subscription");
    }
    for (std::size_t callback = 0; callback < end; ++callback) {
        const std::string who = situation + ": number " + std::to_string(callback + 1);
        if (callback < first) {
            trial.require(times[callback] == 0, FindingId::AfterUnsubscribe,
                          who + " had ended, and was told");
            continue;
        }
        trial.require(times[callback] >= 1,
                      first == 0 ? FindingId::NotNotified : FindingId::OthersUnsubscribed,
                      who + " was not told");
        trial.require(times[callback] <= 1, FindingId::NotifiedTwice, who + " was told more than once");
    }
}

// As many as the platform takes: it may have places for so many and no more, and says so.
std::size_t beginMany(Trial& trial, const char* key, int* data)
{
    constexpr std::size_t kLeast = 4;
    std::size_t begun = 0;
    while (begun < kMany && (begun < kLeast ? subscribe(trial, key, kCallbacks[begun], data + begun)
                                            : begin(trial, key, kCallbacks[begun], data + begun)) == 0) {
        ++begun;
    }
    return begun;
}

// More than a short table holds. The first half ends before the others.
void tryManyAtATime(Trial& trial)
{
    static int data[2][kMany];
    constexpr const char* kKeys[] = {kStatus, kProgress};
    std::size_t begun[2];
    for (std::size_t key = 0; key < 2; ++key) {
        begun[key] = beginMany(trial, kKeys[key], data[key]);
    }
    for (const bool isHalf : {false, true}) {
        for (std::size_t key = 0; key < 2; ++key) {
            const std::size_t first = isHalf ? begun[key] / 2 : 0;
            const int value = (isHalf ? 60 : 50) + static_cast<int>(key);
            forget();
            if (write(trial, kKeys[key], value)) {
                judgeMany(trial, value, first, begun[key], data[key],
                          std::to_string(begun[key]) + " callbacks listen to a key" +
                              (isHalf ? ", of which the first half has ended" : ""));
            }
        }
        for (std::size_t key = 0; key < 2; ++key) {
            const std::size_t half = begun[key] / 2;
            for (std::size_t one = isHalf ? half : 0; one < (isHalf ? begun[key] : half); ++one) {
                unsubscribe(trial, kKeys[key], kCallbacks[one]);
            }
        }
    }
}

// As a daemon's: it stands for as long as the process does.
std::atomic<int> toldToLasting{0};

void onLasting(keynode*, void*)
{
    ++toldToLasting;
}

void tryListeners(Trial& trial)
{
    write(trial, kStatus, 1);
    write(trial, kProgress, 1);
    trial.iterate(300ms); // what is told of it is not for who subscribes now
    if (subscribe(trial, kStatus, kCallbacks[0], &dataOfOne) != 0 ||
        subscribe(trial, kStatus, onLasting, nullptr) != 0) {
        return;
    }
    tryValues(trial);
    tryOtherProcesses(trial);
    unsubscribe(trial, kStatus, kCallbacks[0]);
    tryManyInTurn(trial);
    tryManyAtATime(trial);
    const int before = toldToLasting;
    write(trial, kStatus, 81);
    trial.require(trial.iterate(2s, [=] { return toldToLasting > before; }), FindingId::NotNotified,
                  "who has listened since the beginning is not told any more");
    unsubscribe(trial, kStatus, onLasting);
}

} // namespace

std::vector<TrialKind> listenerTrials()
{
    return {{"listeners", tryListeners}, {"row-writer", writeRow}, {"listener", listenBeside}};
}

} // namespace platformcheck
