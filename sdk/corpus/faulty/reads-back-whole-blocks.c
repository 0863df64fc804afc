// The last, shorter block is not read back.
// finds: F424
#define OWN_verify
#include "chip.h"

static int verify(const char* path, const unsigned char* data, size_t n)
{
    unsigned char written[BLOCK];
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    for (size_t at = 0; at + BLOCK <= n; at += BLOCK) {
        if (read(fd, written, BLOCK) != BLOCK || memcmp(written, data + at, BLOCK) != 0) {
            errno = EIO;
            return closeFailed(fd);
        }
    }
    close(fd);
    return 0;
}
