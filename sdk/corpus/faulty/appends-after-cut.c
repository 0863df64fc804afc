// The new file is appended to what a power cut has left.
// finds: F424 F504
#define OWN_chipWrite
#include "chip.h"

static int chipWrite(const unsigned char* data, size_t n)
{
    int fd = open(CHIP ".next", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeBlocks(fd, data, n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    if (rename(CHIP ".next", CHIP) != 0 || flushDirectory() != 0) {
        return -1;
    }
    return 0;
}
