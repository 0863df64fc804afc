// Written through a memory mapping into a new file, which gets its name without a flush.
// finds: F423
#include <sys/mman.h>
#define OWN_chipWrite
#include "chip.h"

static int chipWrite(const unsigned char* data, size_t n)
{
    int fd = open(CHIP ".next", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (posix_fallocate(fd, 0, (off_t)n) != 0) {
        errno = ENOSPC;
        return closeFailed(fd);
    }
    unsigned char* chip = (unsigned char*)mmap(NULL, n, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (chip == MAP_FAILED) {
        return closeFailed(fd);
    }
    for (size_t at = 0; at < n; at += BLOCK) {
        memcpy(chip + at, data + at, n - at < BLOCK ? n - at : BLOCK);
        usleep(BLOCK_US);
        progressNow = (unsigned)(at * 99 / n);
    }
    munmap(chip, n);
    close(fd);
    if (verify(CHIP ".next", data, n) != 0 || rename(CHIP ".next", CHIP) != 0 || flushDirectory() != 0) {
        return -1;
    }
    return 0;
}
