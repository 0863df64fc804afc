#include "common/files/memory-file.h"

#include <sys/mman.h>
#include <unistd.h>

#include "common/daemon/limits.h"

namespace common
{

MemoryFile::MemoryFile() : descriptor_(memfd_create("tarnwick", MFD_CLOEXEC)) {}

std::string MemoryFile::path() const
{
    return "/proc/self/fd/" + std::to_string(descriptor_.get());
}

bool MemoryFile::append(const char* bytes, std::size_t count) const
{
    constexpr off_t kEnough = 2 * kMostInformation;
    return lseek(descriptor_.get(), 0, SEEK_CUR) < kEnough &&
           write(descriptor_.get(), bytes, count) == static_cast<ssize_t>(count);
}

} // namespace common
