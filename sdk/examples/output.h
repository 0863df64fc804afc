// What the two make- programs ask before they write.
#ifndef EXAMPLES_OUTPUT_H
#define EXAMPLES_OUTPUT_H

#include <cstdio>
#include <filesystem>

// False, with a message, when something other than a file has that name: a device would be replaced by a
// file.
inline bool mayWrite(const std::filesystem::path& path)
{
    std::error_code ignored; // what cannot be looked at will fail when it is opened
    if (!std::filesystem::exists(path, ignored) || std::filesystem::is_regular_file(path, ignored)) {
        return true;
    }
    std::fprintf(stderr, "%s exists and is not a file: name the file to write\n", path.c_str());
    return false;
}

#endif
