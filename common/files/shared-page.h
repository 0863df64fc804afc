// Room for a file that programs share as memory.
#ifndef COMMON_FILES_SHARED_PAGE_H
#define COMMON_FILES_SHARED_PAGE_H

#include <cerrno>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

namespace common
{

// Gives `file`, opened for writing, `size` bytes that the disk has, and no more. Without them a full disk
// ends by SIGBUS whoever writes into the memory that is mapped from the file. False with errno when there is
// no room.
inline bool reserve(int file, off_t size)
{
    if (ftruncate(file, size) != 0) {
        return false;
    }
    errno = posix_fallocate(file, 0, size);
    return errno == 0;
}

} // namespace common

#endif
