// The new firmware is made the active one in a destructor.
// finds: F409 F422
#define OWN_chipWrite
#include "chip.h"

static int ready;

static int chipWrite(const unsigned char* data, size_t n)
{
    ready = 0;
    int fd = open(CHIP ".next", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeBlocks(fd, data, n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    if (verify(CHIP ".next", data, n) != 0) {
        return -1;
    }
    ready = 1;
    return 0;
}

__attribute__((destructor)) static void activate(void)
{
    if (ready) {
        rename(CHIP ".next", CHIP);
        flushDirectory();
    }
}
