// A set's clock page, as those see it who only read it.
#ifndef VSET_CLOCK_MAPPED_PAGE_H
#define VSET_CLOCK_MAPPED_PAGE_H

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vset/clock/clock-page.h"

namespace vset
{

// Null when there is no whole page of this layout under that name. It stays until munmap(), or for ever.
inline const ClockPage* mapClockPage(const char* path)
{
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    struct stat status{};
    if (file < 0) {
        return nullptr;
    }
    void* memory = MAP_FAILED;
    if (fstat(file, &status) == 0 && status.st_size >= static_cast<off_t>(sizeof(ClockPage))) {
        memory = mmap(nullptr, sizeof(ClockPage), PROT_READ, MAP_SHARED, file, 0);
    }
    close(file);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    const auto* page = static_cast<const ClockPage*>(memory);
    return page->magic.load() == kClockMagic ? page : nullptr;
}

} // namespace vset

#endif
