// A second update begins where the first one ended.
// finds: F418 F419
#define OWN_writeBlocks
#include "chip.h"

static MAYBE_UNUSED int writeBlocks(int fd, const unsigned char* data, size_t n)
{
    static size_t at;
    for (; at < n; at += BLOCK) {
        size_t size = n - at < BLOCK ? n - at : BLOCK;
        if (writeAll(fd, data + at, size) != 0) {
            return -1;
        }
        usleep(BLOCK_US);
        progressNow = (unsigned)((at + size) * 99 / n);
    }
    return 0;
}
