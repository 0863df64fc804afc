#include "common/files/memory-file.h"

#include <sys/mman.h>
#include <unistd.h>

namespace common
{

MemoryFile::MemoryFile() : descriptor_(memfd_create("tarnwick", MFD_CLOEXEC)) {}

std::string MemoryFile::path() const
{
    return "/proc/self/fd/" + std::to_string(descriptor_.get());
}

bool MemoryFile::append(const char* bytes, std::size_t count) const
{
    constexpr off_t kLimit = 2 << 20; // the daemon takes half of it
    return lseek(descriptor_.get(), 0, SEEK_CUR) < kLimit &&
           write(descriptor_.get(), bytes, count) == static_cast<ssize_t>(count);
}

} // namespace common
