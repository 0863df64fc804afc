// Opens files that a person or a stick has named: a pipe or a device under that name must not make a program
// wait, nor be read.
#ifndef COMMON_FILES_REGULAR_FILE_H
#define COMMON_FILES_REGULAR_FILE_H

#include <cstddef>
#include <optional>
#include <string>

#include "common/files/unique-fd.h"

namespace common
{

// A regular file, open for reading; closed with the object.
class RegularFile
{
public:
    explicit RegularFile(const std::string& path);

    int descriptor() const { return descriptor_.get(); } // -1 when there is none

    // Why, to be put behind the path: "cannot be opened: No such file or directory", "is not a file but a
    // pipe".
    const std::string& problem() const { return problem_; }

private:
    UniqueFd descriptor_;
    std::string problem_;
};

// What stands in a regular file of at most `most` bytes. Nothing when it cannot be had; then `problem` says
// why, as above, or "is longer than 65536 bytes". Of a longer file no more than that is read, whatever size
// it says it has.
std::optional<std::string> readRegularFile(const std::string& path, std::size_t most, std::string& problem);

// For code that opens the path itself: what keeps it from being read as a file, though something is there
// ("is not a file but a pipe"). Empty for a file, for nothing at all, and for what cannot be looked at.
std::string problemOfSpecialFile(const std::string& path);

} // namespace common

#endif
