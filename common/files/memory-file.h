// A file without a place in any directory, for functions that read paths.
#ifndef COMMON_FILES_MEMORY_FILE_H
#define COMMON_FILES_MEMORY_FILE_H

#include <cstddef>
#include <string>

#include "common/files/unique-fd.h"

namespace common
{

class MemoryFile
{
public:
    MemoryFile();

    std::string path() const; // as long as the object lives, in this process
    // False when it is longer than any information file that the daemon would read, or there is no room.
    bool append(const char* bytes, std::size_t count) const;

private:
    UniqueFd descriptor_;
};

} // namespace common

#endif
