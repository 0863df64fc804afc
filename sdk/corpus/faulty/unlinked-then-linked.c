// The old file is removed before the new one has its name.
// finds: F413 F501
#define OWN_chipWrite
#include "chip.h"

static int chipWrite(const unsigned char* data, size_t n)
{
    int fd = open(CHIP ".next", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeBlocks(fd, data, n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    if (verify(CHIP ".next", data, n) != 0 || unlink(CHIP) != 0 || link(CHIP ".next", CHIP) != 0 ||
        unlink(CHIP ".next") != 0 || flushDirectory() != 0) {
        return -1;
    }
    return 0;
}
