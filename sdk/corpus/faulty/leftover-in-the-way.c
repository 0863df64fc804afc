// The new file must not exist, but a power cut leaves it.
// finds: F502
#define OWN_chipWrite
#include "chip.h"

static int chipWrite(const unsigned char* data, size_t n)
{
    int fd = open(CHIP ".next", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeBlocks(fd, data, n) != 0 || fsync(fd) != 0) {
        int kept = errno;
        unlink(CHIP ".next");
        errno = kept;
        return closeFailed(fd);
    }
    close(fd);
    if (verify(CHIP ".next", data, n) != 0 || rename(CHIP ".next", CHIP) != 0 || flushDirectory() != 0) {
        int kept = errno;
        unlink(CHIP ".next");
        errno = kept;
        return -1;
    }
    return 0;
}
