// Owns one file descriptor.
#ifndef COMMON_FILES_UNIQUE_FD_H
#define COMMON_FILES_UNIQUE_FD_H

#include <unistd.h>
#include <utility>

namespace common
{

class UniqueFd
{
public:
    UniqueFd() = default;
    explicit UniqueFd(long fd) : fd_(static_cast<int>(fd)) {} // as a system call gives it; -1: none
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); } // the caller owns it from now on
    void reset(int fd = -1)
    {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

} // namespace common

#endif
