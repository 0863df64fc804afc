// Blocks of the new file that a power cut has left and that are right are not written again.
// finds: nothing
#define OWN_chipWrite
#include "chip.h"

static int chipWrite(const unsigned char* data, size_t n)
{
    unsigned char block[BLOCK];
    int fd = open(CHIP ".next", O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    for (size_t at = 0; at < n; at += BLOCK) {
        size_t size = n - at < BLOCK ? n - at : BLOCK;
        if (pread(fd, block, size, (off_t)at) != (ssize_t)size || memcmp(block, data + at, size) != 0) {
            if (pwrite(fd, data + at, size, (off_t)at) != (ssize_t)size) {
                return closeFailed(fd);
            }
            usleep(BLOCK_US);
        }
        progressNow = (unsigned)((at + size) * 99 / n);
    }
    if (ftruncate(fd, (off_t)n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    if (verify(CHIP ".next", data, n) != 0 || rename(CHIP ".next", CHIP) != 0 || flushDirectory() != 0) {
        return -1;
    }
    return 0;
}
