// The only bank is erased first, and has no version until the update is over.
// finds: F413 F501
#define OWN_chipWrite
#include "chip.h"

static int chipWrite(const unsigned char* data, size_t n)
{
    static const unsigned char blank[BLOCK];
    int fd = open(CHIP, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    if (writeAll(fd, blank, sizeof blank) != 0 || fsync(fd) != 0 || lseek(fd, BLOCK, SEEK_SET) < 0 ||
        writeBlocks(fd, data + BLOCK, n - BLOCK) != 0 || ftruncate(fd, (off_t)n) != 0 || fsync(fd) != 0 ||
        pwrite(fd, data, BLOCK, 0) != BLOCK || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    return verify(CHIP, data, n);
}
