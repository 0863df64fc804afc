// The new file's directory is flushed before it is renamed, and the file itself is not.
// finds: F423
#define OWN_chipWrite
#include "chip.h"

static int chipWrite(const unsigned char* data, size_t n)
{
    int fd = open(CHIP ".next", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeBlocks(fd, data, n) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    if (flushDirectory() != 0 || verify(CHIP ".next", data, n) != 0 || rename(CHIP ".next", CHIP) != 0 ||
        flushDirectory() != 0) {
        return -1;
    }
    return 0;
}
