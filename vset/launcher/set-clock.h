// The clock of a set, as the launcher and `vset clock` write it (see clock/clock-page.h).
#pragma once

#include "launcher/set-directory.h"

#include <optional>

namespace vset
{

// Rates outside of this make no sense for waits that take milliseconds, and are refused.
constexpr double kLowestRate = 0.01;
constexpr double kHighestRate = 1000.0;
constexpr double kLongestJump = 10.0 * 365 * 86400; // seconds, of one jump

// A clock that shows the PC's time now and goes on at `rate`. While the set does not run. Throws
// common::WrongUse for a rate out of range.
void resetClock(const SetDirectory& set, double rate);

struct ClockChange {
    std::optional<double> rate;
    // Seconds. Forwards, monotonic and wall time jump together, and waits end accordingly; backwards, only
    // the wall time does, because monotonic time never goes back.
    std::optional<double> jump;
};

// Changes the clock of a running set, and returns a line that describes the clock as it is then. Throws
// Error when the set does not run or runs without the clock library, and common::WrongUse, with the clock as
// it was, for a rate or jump that is no number or out of range, or that would lead out of the years 1970 to
// 2099.
std::string changeClock(const fs::path& set, const ClockChange& change);

} // namespace vset
