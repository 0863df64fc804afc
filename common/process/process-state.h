// What belongs to the whole process and must be after a call as it was before: looked at on the thread that
// calls.
#ifndef COMMON_PROCESS_PROCESS_STATE_H
#define COMMON_PROCESS_PROCESS_STATE_H

#include <array>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdint>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

#include "common/files/unique-fd.h"

namespace common
{

// Something that a call has left otherwise, and what was seen, without the call's name.
struct ProcessChange {
    enum class Kind { kDirectory, kSignals, kLocale, kEnvironment, kFileModeMask, kTimer, kThread, kProcess };
    Kind kind;
    std::string seen;
};

class ProcessState
{
public:
    static ProcessState now();

    // What `later` has otherwise.
    std::vector<ProcessChange> changesIn(const ProcessState& later) const;

    // The state after a call: what the call has started gets a moment to end. A thread that was joined or a
    // child that was reaped may stay visible for that long.
    ProcessState settled() const;

private:
    std::string directory_;
    std::string locale_;
    locale_t threadLocale_ = nullptr;
    std::vector<std::string> environment_;
    std::string mask_;       // of file modes
    std::size_t timers_ = 0; // that run
    std::array<void (*)(int), NSIG> handlers_{};
    sigset_t blocked_{};
    std::set<pid_t> threads_;
    std::set<pid_t> processes_; // all that this process's namespace has
};

// Nanoseconds of the PC's monotonic clock, whatever the set's clock does.
std::int64_t realNow();

// "SIGTERM", or "signal 77" for one without a name.
std::string signalName(int signal);

// The number of this process's open descriptors.
std::size_t openDescriptors();

// How long this thread has waited for a processor, so that a loaded machine's delay is not the library's.
class ProcessorDelay
{
public:
    ProcessorDelay();
    std::chrono::nanoseconds soFar() const; // on the thread that made it; 0 where the kernel does not say

private:
    UniqueFd file_;
};

} // namespace common

#endif
