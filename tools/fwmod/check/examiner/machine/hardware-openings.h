// Which of the hardware's files, or whether a given one, are opened while these objects live, by whichever
// thread.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_MACHINE_HARDWARE_OPENINGS_H
#define TOOLS_FWMOD_CHECK_EXAMINER_MACHINE_HARDWARE_OPENINGS_H

#include <filesystem>
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

class FileOpenings
{
public:
    explicit FileOpenings(const std::filesystem::path& file);
    bool isAny() const; // true, too, where it cannot be watched

private:
    common::UniqueFd events_;
    bool isWatched_;
};

} // namespace fwmod::examiner

#endif
