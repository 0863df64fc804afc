// A file without a place in any directory, for functions that read paths.
#ifndef COMMON_FILES_MEMORY_FILE_H
#define COMMON_FILES_MEMORY_FILE_H

#include <cstddef>
#include <string>

namespace common
{

class MemoryFile
{
public:
    MemoryFile();
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string path() const; // as long as the object lives, in this process
    // False when it is longer than any information file that the daemon would read, or there is no room.
    bool append(const char* bytes, std::size_t count) const;

private:
    int descriptor_;
};

} // namespace common

#endif
