// Parts of an examination that run at once, each in a process of its own.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_LANES_H
#define TOOLS_FWMOD_CHECK_EXAMINER_LANES_H

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "common/files/unique-fd.h"

namespace fwmod::examiner
{

// Nothing that a lane does to its memory is seen by the others: what it found out it tells in lines.
class Lanes
{
public:
    using Tell = std::function<void(const std::string& line)>; // throws when it cannot be told

    Lanes();

    // The lane ends with `work`, with an exception of it as a failure, and with this process.
    void start(const std::function<void(const Tell&)>& work);

    // Takes each line, one after the other, until all lanes have ended. Throws when one of them failed.
    void finish(const Tell& take);

private:
    common::UniqueFd reading_;
    common::UniqueFd writing_;
    std::vector<pid_t> processes_;
};

} // namespace fwmod::examiner

#endif
