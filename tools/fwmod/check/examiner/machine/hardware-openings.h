// Which of the hardware's files are opened while this object lives, by whichever thread.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_MACHINE_HARDWARE_OPENINGS_H
#define TOOLS_FWMOD_CHECK_EXAMINER_MACHINE_HARDWARE_OPENINGS_H

#include <string>

#include "common/files/unique-fd.h"

namespace fwmod::examiner
{

class HardwareOpenings
{
public:
    explicit HardwareOpenings(bool isWatching);
    std::string first() const; // a file's name; "" when there was none

private:
    common::UniqueFd events_;
};

} // namespace fwmod::examiner

#endif
