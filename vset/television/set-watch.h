// Waits for what shall happen to a set, seen from outside, in the place of loops that sleep.
//
// A wait looks at the set some twenty times a second. It ends at once, not at its limit, when what it waits
// for can no longer happen: the set has gone off, or the daemon has ended in another way. One thread.
#ifndef VSET_TELEVISION_SET_WATCH_H
#define VSET_TELEVISION_SET_WATCH_H

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace vset
{

// One thing to wait for. `isSo` looks at the set as it is now; it throws common::Failure when that cannot
// become so any more.
struct Condition {
    std::string what; // ends the sentence "waited in vain: "
    // `longest`: so long it may ask a platform that does not answer.
    std::function<bool(std::chrono::milliseconds longest)> isSo;
    std::function<std::string()> seen; // what there was instead, for the person
    bool ofSetThatIsOff = false;       // the set need not be on for it, nor come on
};

// Throws common::Failure, with what was seen last, when it is not so within `limit` of this process's time,
// or cannot become so. A set that is off is given the same time to be switched on, ten seconds at most.
void waitFor(const std::filesystem::path& set, const Condition& condition, std::chrono::milliseconds limit);

// ---- Conditions ----

// Which of the daemon's records count.
enum class Since {
    kBoot, // of the newest boot
    kNow,  // from now on
    kOn,   // since the set was switched on
    kEver, // all that is in the log
};

struct Text {
    std::string text;
    bool isWhole = false; // the message is this text; else it contains it
    size_t count = 1;     // so many such records
    Since since = Since::kBoot;
    // Those from that boot on, in the place of `since`; counted from 1 since the set was switched on.
    std::optional<int> boot = std::nullopt;
    // In the place of `text`: whatever shows that the daemon has come to this state.
    std::optional<int> state = std::nullopt;
};

Condition isUp(const std::filesystem::path& set, std::optional<int> boot = std::nullopt);
Condition isOff(const std::filesystem::path& set);
// The daemon has said it in the platform's log.
Condition hasSaid(const std::filesystem::path& set, const Text& text);
// It has ended in the newest boot, or in `boot`; with another status than the given one it never will.
Condition hasEnded(const std::filesystem::path& set, std::optional<int> status, std::optional<int> boot);
// A path of the set's own.
Condition fileIs(const std::filesystem::path& set, const std::string& path, bool isThere);
// Of the platform: its power state, the number of power locks that are held, a settings key.
Condition powerIs(const std::filesystem::path& set, int state);
Condition locksAre(const std::filesystem::path& set, unsigned int count);
// What the module's control library itself says of its write, in percent.
Condition progressIs(const std::filesystem::path& set, const std::string& module, int atLeast);
Condition settingIs(const std::filesystem::path& set, const std::string& key, int value);

} // namespace vset

#endif
