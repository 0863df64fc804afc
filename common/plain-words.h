// Failures that the C++ library throws, as they are told to a person.
#ifndef COMMON_PLAIN_WORDS_H
#define COMMON_PLAIN_WORDS_H

#include <exception>
#include <filesystem>
#include <new>
#include <string>

namespace common
{

// Its text; of a file system's failure the path and the reason, without the library's own words.
inline std::string plainWords(const std::exception& error)
{
    if (const auto* const failure = dynamic_cast<const std::filesystem::filesystem_error*>(&error)) {
        const std::filesystem::path path = failure->path2().empty() ? failure->path1() : failure->path2();
        return path.string() + ": " + failure->code().message();
    }
    const bool isMemory = dynamic_cast<const std::bad_alloc*>(&error) != nullptr;
    return isMemory ? "there is no memory left" : error.what();
}

} // namespace common

#endif
