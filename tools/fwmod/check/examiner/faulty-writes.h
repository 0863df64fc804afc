// Hardware that fails at one write or flush of an update, or holds something else.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_FAULTY_WRITES_H
#define TOOLS_FWMOD_CHECK_EXAMINER_FAULTY_WRITES_H

#include <filesystem>
#include <vector>

#include "tools/fwmod/check/examiner/supervisor.h"
#include "tools/fwmod/check/protocol/fault-places.h"
#include "tools/fwmod/check/protocol/report.h"

namespace fwmod::examiner
{

// Of an update that nothing has disturbed.
FaultPlaces faultPlacesOf(const Writes& writes);

// The update with writes and flushes that fail, one at a time, and with one that goes wrong without a word.
void updateFaultyHardware(Supervisor& supervisor, Report& report);

} // namespace fwmod::examiner

#endif
