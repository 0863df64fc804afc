// The library where its hardware is not there, cannot be understood, goes away, or cannot be written.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_LOST_HARDWARE_H
#define TOOLS_FWMOD_CHECK_EXAMINER_LOST_HARDWARE_H

#include "tools/fwmod/check/examiner/questions.h"
#include "tools/fwmod/check/examiner/supervisor.h"
#include "tools/fwmod/check/protocol/report.h"

namespace fwmod::examiner
{

// At the real pace: how long an answer takes counts. `isVersionThere`: an update has shown that the version
// is read from the hardware's files.
void askOfLostHardware(Supervisor& supervisor, const Answers& answers, bool isVersionThere, Report& report);

void updateLostHardware(Supervisor& supervisor, Report& report);

} // namespace fwmod::examiner

#endif
