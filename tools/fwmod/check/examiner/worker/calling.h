// What the parts of Worker share: the names, the time and the limits of calls.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_WORKER_CALLING_H
#define TOOLS_FWMOD_CHECK_EXAMINER_WORKER_CALLING_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>

#include "common/process/process-state.h"
#include "tools/fwmod/check/examiner/black-box.h"
#include "tools/fwmod/check/examiner/worker/worker.h"

namespace fwmod::examiner
{

inline constexpr std::chrono::milliseconds kQuestionLimit =
    std::chrono::seconds(8);               // they are instant; the rest is for a loaded machine
inline constexpr double kSlowNotice = 1.0; // seconds

// For reports: with `where` behind it.
std::string callName(const std::string& name, const std::string& where);

// Also where the set's clock is fast.
void realSleep(std::chrono::nanoseconds duration);

// Time that a call took, less what its thread waited for a processor.
class Stopwatch
{
public:
    Stopwatch() : delayBefore_(delay_.soFar()), begin_(realNow()) {}
    std::chrono::duration<double> read() const
    {
        const std::chrono::nanoseconds wall(realNow() - begin_);
        return std::max(wall - (delay_.soFar() - delayBefore_), std::chrono::nanoseconds(0));
    }

private:
    common::ProcessorDelay delay_;
    std::chrono::nanoseconds delayBefore_;
    std::int64_t begin_;
};

void complainOfSlowness(const Worker& worker, const std::string& name, const Returned& returned,
                        FindingId id = FindingId::SlowQuestion, double most = kSlowNotice);

// Of what a call has changed in the process.
FindingId findingOf(common::ProcessChange::Kind kind);

} // namespace fwmod::examiner

#endif
