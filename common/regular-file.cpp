#include "common/regular-file.h"

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
    descriptor_ = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor_ < 0) {
        problem_ = std::string("cannot be opened: ") + std::strerror(errno);
        return;
    }
    problem_ = fstat(descriptor_, &status) == 0 ? problemOf(status.st_mode) : std::strerror(errno);
    if (!problem_.empty()) { // it was exchanged in between
        close(descriptor_);
        descriptor_ = -1;
    }
}

RegularFile::~RegularFile()
{
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

std::string problemOfSpecialFile(const std::string& path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? problemOf(status.st_mode) : "";
}

} // namespace common
