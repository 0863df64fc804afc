// The power is cut before chosen writes of an update, each time on fresh hardware; then a new start must find
// hardware that answers, tells the truth, and can be updated.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_POWER_CUTS_H
#define TOOLS_FWMOD_CHECK_EXAMINER_POWER_CUTS_H

#include <string>

#include "tools/fwmod/check/examiner/lanes.h"
#include "tools/fwmod/check/examiner/supervisor.h"
#include "tools/fwmod/check/protocol/report.h"

namespace fwmod::examiner
{

// In a worker: an update that may be cut; and the daemon's next start, which asks, and updates what is
// pending.
void updateUntilCut(Worker& worker);
void startAgain(Worker& worker);

// What keeps the hardware from answering at the next start; "" when nothing does.
std::string whyNoAnswer(const Session& session, const Job& job);

// The update after a power cut is cut, too.
void cutPowerTwice(Supervisor& supervisor, Report& report);

// What was written before one cut has changed since, as if it were of another image: the next updates must
// not take it for this one's.
void updateAfterAnotherImage(Supervisor& supervisor, Report& report);

// What was removed or overwritten before the write that selects the new firmware was flushed: that write is
// lost at the cut, and the rest is not.
void loseWhatSelects(Supervisor& supervisor, Report& report);

// Starts lanes which tell a CutTrial of each cut of the job.
void cutPower(const Supervisor& supervisor, Lanes& lanes);

} // namespace fwmod::examiner

#endif
