// The order of an update's writes and flushes: what a power cut may lose, and what must not depend on it.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_FLUSH_ORDER_H
#define TOOLS_FWMOD_CHECK_EXAMINER_FLUSH_ORDER_H

#include <filesystem>
#include <map>
#include <vector>

#include "tools/fwmod/check/examiner/machine/machine.h"
#include "tools/fwmod/check/examiner/supervisor.h"
#include "tools/fwmod/check/protocol/report.h"

namespace fwmod::examiner
{

// `machine` is the hardware as the update has left it.
void judgeFlushes(const Writes& writes, const Machine& machine, Report& report);

// What was written and no flush has followed: may be lost at a power cut, or any part of it. Only what has a
// place in a file.
std::vector<SeenWrite> unflushedContent(const Writes& writes);

// Files that the update has made, after which their directory was not flushed: they may be lost as a whole.
std::vector<std::filesystem::path> unflushedNames(const Writes& writes);

// Renamings and links after which the directory was not flushed.
std::vector<SeenWrite> unflushedNamings(const Writes& writes);

// Whether what was written is only handed over: it is not there any more, or what was made of it and is not
// among the `open`, unflushed ones holds the same. `later` may have renamed it; `machine` is as they have
// left it.
bool isHandedOver(SeenWrite write, const std::vector<SeenWrite>& open, const std::vector<SeenWrite>& later,
                  const Machine& machine);

// As if it had never been written.
void lose(const SeenWrite& write, const Machine& machine);

// As if the name had not been given: who had it before has it again. False when that cannot be done.
bool loseName(const SeenWrite& naming, const Machine& machine);

// Where something was removed or overwritten before a write that may select the new firmware was flushed: the
// write before which the power is to be cut, and that selecting one. Numbers begin with 1.
std::map<unsigned int, unsigned int> hastyRemovals(const Writes& writes);

} // namespace fwmod::examiner

#endif
