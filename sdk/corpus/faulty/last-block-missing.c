// Only whole blocks are written, and read back.
// finds: F421
#define OWN_chipWrite
#include "chip.h"

static int chipWrite(const unsigned char* data, size_t n)
{
    size_t blocks = n / BLOCK;
    int fd = open(CHIP ".next", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeBlocks(fd, data, blocks * BLOCK) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    if (verify(CHIP ".next", data, blocks * BLOCK) != 0 || rename(CHIP ".next", CHIP) != 0 ||
        flushDirectory() != 0) {
        return -1;
    }
    return 0;
}
