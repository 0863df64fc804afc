// The clock of a set, as the launcher and `vset clock` write it (see clock/clock-file.h).
#ifndef VSET_LAUNCHER_SET_CLOCK_H
#define VSET_LAUNCHER_SET_CLOCK_H

#include <string>

#include "vset/clock/clock-file.h"
#include "vset/launcher/set-directory.h"

namespace vset
{

// A clock that shows the PC's time now and goes on at `rate`, the platform's to change; in a rootless set,
// which has one user, the caller's. While the set does not run. Throws common::WrongUse for a rate out of
// range.
void resetClock(const SetDirectory& set, double rate, bool isRootless);

// Changes the clock of a running set, and returns a line that describes the clock as it is then. Throws
// Error when the set does not run or runs without the clock library, and common::WrongUse, with the clock as
// it was, for a rate or jump that is no number or out of range, or that would lead out of the years 1970 to
// 2099.
std::string changeClock(const fs::path& set, const ClockChange& change);

} // namespace vset

#endif
