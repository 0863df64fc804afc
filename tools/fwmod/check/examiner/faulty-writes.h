// The order of an update's writes and flushes, and hardware that fails at one of them.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_FAULTY_WRITES_H
#define TOOLS_FWMOD_CHECK_EXAMINER_FAULTY_WRITES_H

#include <filesystem>
#include <vector>

#include "tools/fwmod/check/examiner/supervisor.h"
#include "tools/fwmod/check/protocol/fault-places.h"
#include "tools/fwmod/check/protocol/report.h"

namespace fwmod::examiner
{

void judgeFlushes(const Writes& writes, Report& report);

// Of an update that nothing has disturbed.
FaultPlaces faultPlacesOf(const Writes& writes);

// What was written and no flush has followed: may be lost at a power cut, or any part of it. Only what has a
// place in a file.
std::vector<SeenWrite> unflushedContent(const Writes& writes);

// Files that the update has made, after which their directory was not flushed: they may be lost as a whole.
std::vector<std::filesystem::path> unflushedNames(const Writes& writes);

// As if it had never been written.
void lose(const SeenWrite& write, const Machine& machine);

// The update with writes and flushes that fail, one at a time, and with one that goes wrong without a word.
void updateFaultyHardware(Supervisor& supervisor, Report& report);

} // namespace fwmod::examiner

#endif
