// The image is read through mapped memory, and written in pieces with pwritev.
// finds: nothing
#define OWN_loadImage
#define OWN_writeBlock
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include "base.h"

static inline int loadImage(const char* path)
{
    struct stat status;
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return -1;
    }
    const size_t size = fstat(file, &status) == 0 ? (size_t)status.st_size : 0;
    void* const bytes = mmap(NULL, size, PROT_READ, MAP_PRIVATE, file, 0);
    close(file);
    if (bytes == MAP_FAILED) {
        return -1;
    }
    const int result = checkImage((const unsigned char*)bytes, size);
    if (result == 0) {
        memcpy(image, bytes, size);
    }
    munmap(bytes, size);
    return result;
}

static inline int writeBlock(int chip, size_t block, off_t at)
{
    unsigned char* const bytes = image + block * BLOCK;
    const struct iovec halves[] = {{bytes, BLOCK / 2}, {bytes + BLOCK / 2, BLOCK / 2}};
    if (pwritev(chip, halves, 2, at + (off_t)(block * BLOCK)) != BLOCK) {
        return fail(EIO);
    }
    pause_ms(BLOCK_MS);
    setProgress((unsigned int)((block + 1) * 95 / BLOCKS));
    return 0;
}
