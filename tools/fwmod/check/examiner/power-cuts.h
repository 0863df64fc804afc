// The power is cut before chosen writes of an update, each time on fresh hardware; then a new start must find
// hardware that answers, tells the truth, and can be updated.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_POWER_CUTS_H
#define TOOLS_FWMOD_CHECK_EXAMINER_POWER_CUTS_H

#include "tools/fwmod/check/examiner/supervisor.h"
#include "tools/fwmod/check/protocol/report.h"

namespace fwmod::examiner
{

// The update after a power cut is cut, too.
void cutPowerTwice(Supervisor& supervisor, Report& report);

// What was written before one cut has changed since, as if it were of another image: the next updates must
// not take it for this one's.
void updateAfterAnotherImage(Supervisor& supervisor, Report& report);

// Adds to the report what came of each cut.
void cutPower(const Supervisor& supervisor, Report& report);

} // namespace fwmod::examiner

#endif
