// A flush of the directory that fails is not looked at.
// finds: F402
#define OWN_chipWrite
#include "chip.h"

static int chipWrite(const unsigned char* data, size_t n)
{
    const int fd = open(CHIP ".next", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeBlocks(fd, data, n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    if (verify(CHIP ".next", data, n) != 0 || rename(CHIP ".next", CHIP) != 0) {
        return -1;
    }
    flushDirectory();
    return 0;
}
