#include "common/files/regular-file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace common
{

namespace
{
std::string problemOf(mode_t mode)
{
    switch (mode & S_IFMT) {
    case S_IFREG:
        return "";
    case S_IFDIR:
        return "is not a file but a directory";
    case S_IFIFO:
        return "is not a file but a pipe";
    case S_IFSOCK:
        return "is not a file but a socket";
    default:
        return "is not a file but a device";
    }
}
// Appends what is read, until that is more than `most` bytes. False with errno.
bool readUpTo(int descriptor, std::size_t most, std::string& text)
{
    char chunk[65536];
    while (text.size() <= most) {
        const ssize_t count = read(descriptor, chunk, std::min(sizeof chunk, most - text.size() + 1));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return count == 0;
        }
        text.append(chunk, static_cast<std::size_t>(count));
    }
    return true;
}

} // namespace

RegularFile::RegularFile(const std::string& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0) { // opening alone does something to some devices
        problem_ = problemOf(status.st_mode);
    }
    if (!problem_.empty()) {
        return;
    }
    descriptor_.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!descriptor_) {
        problem_ = std::string("cannot be opened: ") + std::strerror(errno);
        return;
    }
    problem_ = fstat(descriptor_.get(), &status) == 0 ? problemOf(status.st_mode) : std::strerror(errno);
    if (!problem_.empty()) { // it was exchanged in between
        descriptor_.reset();
    }
}

std::optional<std::string> readRegularFile(const std::string& path, std::size_t most, std::string& problem)
{
    const RegularFile file(path);
    problem = file.problem();
    struct stat status = {};
    if (!problem.empty() || fstat(file.descriptor(), &status) != 0) {
        return std::nullopt;
    }
    std::string text;
    const bool isLarge = status.st_size > static_cast<off_t>(most); // the kernel's files have no size
    if (!isLarge && !readUpTo(file.descriptor(), most, text)) {
        problem = std::string("cannot be read: ") + std::strerror(errno);
        return std::nullopt;
    }
    if (isLarge || text.size() > most) {
        problem = "is longer than " + std::to_string(most) + " bytes";
        return std::nullopt;
    }
    return text;
}

std::string problemOfSpecialFile(const std::string& path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? problemOf(status.st_mode) : "";
}

} // namespace common
