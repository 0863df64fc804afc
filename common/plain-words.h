// Failures of the system and the C++ library, as they are told to a person.
#ifndef COMMON_PLAIN_WORDS_H
#define COMMON_PLAIN_WORDS_H

#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <new>
#include <string>

namespace common
{

// What whoever names the place of a file can do about it; empty where the system's words are all.
inline std::string cureOf(int error)
{
    switch (error) {
    case ENOSPC:
    case EDQUOT:
        return "make room there, or name another place";
    case EFBIG:
        return "raise the limit (ulimit -f)";
    case EROFS:
        return "name a place that can be written";
    default:
        return "";
    }
}

// The system's words, and what to do.
inline std::string reasonOf(int error)
{
    const std::string cure = cureOf(error);
    return std::strerror(error) + (cure.empty() ? "" : ": " + cure);
}

// The reason of a write that failed in what another program says; 0 for none of the usual ones.
inline int errorIn(const std::string& text)
{
    for (const int error : std::array{ENOSPC, EDQUOT, EFBIG, EIO, EROFS, EACCES}) {
        if (text.find(std::strerror(error)) != std::string::npos) {
            return error;
        }
    }
    return 0;
}

// Its text; of a file system's failure the path and the reason, without the library's own words.
inline std::string plainWords(const std::exception& error)
{
    if (const auto* const failure = dynamic_cast<const std::filesystem::filesystem_error*>(&error)) {
        const std::filesystem::path path = failure->path2().empty() ? failure->path1() : failure->path2();
        return path.string() + ": " + reasonOf(failure->code().value());
    }
    const bool isMemory = dynamic_cast<const std::bad_alloc*>(&error) != nullptr;
    return isMemory ? "there is no memory left" : error.what();
}

} // namespace common

#endif
