// Intervals of the PC's time, for what is watched or drawn: the set's clock may run a thousand times faster,
// and nobody looks a thousand times as often.
#pragma once

#include <cstdint>

namespace vset
{

// Set seconds per second of the PC; 1 without a clock of the set's own. Any thread.
double clockRate();

// What a timer of this process has to be set to, to wait about `milliseconds` of the PC's time.
int64_t setMilliseconds(int64_t milliseconds);

} // namespace vset
