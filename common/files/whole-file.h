// What is small enough to be read to its end, as one text.
#ifndef COMMON_FILES_WHOLE_FILE_H
#define COMMON_FILES_WHOLE_FILE_H

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace common
{

// Its bytes; empty when it cannot be opened. It ends where it can no longer be read, as the files in /proc of
// a process that has just ended.
inline std::string readWhole(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::string text;
    char block[65536];
    do {
        in.read(block, sizeof block); // unlike an iterator over the buffer, it does not throw when it fails
        text.append(block, static_cast<std::size_t>(in.gcount()));
    } while (in);
    return text;
}

// What is left to read of a descriptor, which stays open; ends where it can no longer be read.
inline std::string readToEnd(int descriptor)
{
    std::string text;
    char block[16384];
    for (ssize_t count = 0; (count = read(descriptor, block, sizeof block)) != 0;) {
        if (count > 0) {
            text.append(block, static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            break;
        }
    }
    return text;
}

} // namespace common

#endif
