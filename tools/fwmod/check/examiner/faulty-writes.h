// The order of an update's writes and flushes, and hardware that fails at one of them.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_FAULTY_WRITES_H
#define TOOLS_FWMOD_CHECK_EXAMINER_FAULTY_WRITES_H

#include <set>
#include <vector>

#include "tools/fwmod/check/examiner/supervisor.h"
#include "tools/fwmod/check/protocol/report.h"

namespace fwmod::examiner
{

void judgeFlushes(const Writes& writes, Report& report);

// Where this part of the content is written: by number, from 1; 0: there is none.
unsigned int writeAtPart(const Writes& writes, double part);

// The first and the last write of the content, and those that name a file: by number, from 1.
std::set<unsigned int> keyWrites(const Writes& writes);

// Where the content of each file ends, of a few.
std::set<unsigned int> lastOfEachFile(const Writes& writes);

// What was written and no flush has followed: may be lost at a power cut, or any part of it. Only what has a
// place in a file.
std::vector<SeenWrite> unflushedContent(const Writes& writes);

// As if it had never been written.
void lose(const SeenWrite& write, const Machine& machine);

// Of the flushes that can fail, by number from 1: those that are to.
std::set<unsigned int> flushesToFail(const Writes& writes);

// The update with writes and flushes that fail, one at a time, and with one that goes wrong without a word.
void updateFaultyHardware(Supervisor& supervisor, Report& report);

} // namespace fwmod::examiner

#endif
