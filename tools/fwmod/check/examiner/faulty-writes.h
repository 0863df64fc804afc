// The order of an update's writes and flushes, and hardware that fails at one of them.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_FAULTY_WRITES_H
#define TOOLS_FWMOD_CHECK_EXAMINER_FAULTY_WRITES_H

#include "tools/fwmod/check/examiner/supervisor.h"
#include "tools/fwmod/check/protocol/report.h"

namespace fwmod::examiner
{

void judgeFlushes(const Writes& writes, Report& report);

// Where the middle of the content is written: by number, from 1; 0: there is none.
unsigned int middleWrite(const Writes& writes);

// Of the flushes that can fail, by number from 1: those that are to.
std::set<unsigned int> flushesToFail(const Writes& writes);

// The update with one write that fails, one that goes wrong without a word, and flushes that fail, one at a
// time.
void updateFaultyHardware(Supervisor& supervisor, Report& report);

} // namespace fwmod::examiner

#endif
