// Watches what a process writes, wherever it goes: a file, a socket, a device. So a log is seen without
// knowing where a set keeps it.
#ifndef PLATFORM_CHECK_TRIALS_TRACER_H
#define PLATFORM_CHECK_TRIALS_TRACER_H

#include <cstddef>
#include <string>
#include <vector>

namespace platformcheck
{

struct Traced {
    bool isTraced = false; // false: the system does not allow it, and nothing is known
    int status = 0;        // of the process, as waitpid() gives it
    std::string written;   // all that it has handed to the system, at most 16 MiB: of one descriptor in a row
    bool isCut = false;    // it was more
    // Of the texts that were looked for, those that were in its memory at its end or when it has asked for a
    // look: shared with others, or its own alone.
    std::vector<bool> isShared;
    std::vector<bool> isPrivate;
};

// Runs a program (with its arguments, a null pointer behind them) to its end. `texts` must not stand in the
// program's own memory by itself.
Traced traceProgram(const std::vector<std::string>& arguments, const std::vector<std::string>& texts);

// By the program that is traced: whether that text is in its memory now. Of itself it does nothing.
void askForLook(std::size_t text);

} // namespace platformcheck

#endif
