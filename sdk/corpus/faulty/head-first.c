// The new firmware is written over the old one from the front.
// finds: F413 F423 F503
#define OWN_chipWrite
#include "chip.h"

static int chipWrite(const unsigned char* data, size_t n)
{
    int fd = open(CHIP, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    if (writeBlocks(fd, data, n) != 0 || ftruncate(fd, (off_t)n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    return verify(CHIP, data, n);
}
