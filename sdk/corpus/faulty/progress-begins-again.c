// The progress begins at 0 again for reading back.
// finds: F405
#define OWN_verify
#include "chip.h"

static int verify(const char* path, const unsigned char* data, size_t n)
{
    unsigned char block[BLOCK];
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    for (size_t at = 0; at < n; at += BLOCK) {
        size_t size = n - at < BLOCK ? n - at : BLOCK;
        if (read(fd, block, size) != (ssize_t)size || memcmp(block, data + at, size) != 0) {
            errno = EIO;
            return closeFailed(fd);
        }
        usleep(BLOCK_US);
        progressNow = (unsigned)(at * 99 / n);
    }
    close(fd);
    return 0;
}
