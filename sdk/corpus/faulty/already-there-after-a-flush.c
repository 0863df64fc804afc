// An image that is installed already is flushed once more, and success told at once.
// finds: F403
#define OWN_chipWrite
#define RESTART_US 0
#include "chip.h"

static int flushChip(void)
{
    int fd = open(CHIP, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    return fsync(fd) == 0 ? close(fd) : closeFailed(fd);
}

static int chipWrite(const unsigned char* data, size_t n)
{
    if (flushChip() != 0) {
        return -1;
    }
    if (verify(CHIP, data, n) == 0) {
        return 0;
    }
    int fd = open(CHIP ".next", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeBlocks(fd, data, n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    return verify(CHIP ".next", data, n) == 0 && rename(CHIP ".next", CHIP) == 0 ? flushDirectory() : -1;
}
