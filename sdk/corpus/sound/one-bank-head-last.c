// One bank: its head is erased first and written last; meanwhile 0.0 is told.
// finds: nothing
#define OWN_chipVersion
#define OWN_chipWrite
#include "chip.h"

static int chipVersion(char* out)
{
    size_t n = 0;
    struct image image;
    unsigned char* whole = slurp(CHIP, &n);
    if (whole == NULL) {
        return -1;
    }
    strcpy(out,
           parseImage(whole, n, &image) == 0 ? image.version : "0.0"); // the chip's boot loader does this
    free(whole);
    return 0;
}

static int chipWrite(const unsigned char* data, size_t n)
{
    static const unsigned char blank[BLOCK];
    int fd = open(CHIP, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    if (n <= BLOCK) {
        close(fd);
        return fail(EBADMSG);
    }
    if (pwrite(fd, blank, BLOCK, 0) != BLOCK || fsync(fd) != 0 || lseek(fd, BLOCK, SEEK_SET) < 0 ||
        writeBlocks(fd, data + BLOCK, n - BLOCK) != 0 || ftruncate(fd, (off_t)n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    unsigned char* back = (unsigned char*)malloc(n);
    int same = back != NULL && pread(fd, back, n - BLOCK, BLOCK) == (ssize_t)(n - BLOCK) &&
               memcmp(back, data + BLOCK, n - BLOCK) == 0;
    free(back);
    if (!same) {
        close(fd);
        return fail(EIO);
    }
    if (pwrite(fd, data, BLOCK, 0) != BLOCK || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    return verify(CHIP, data, n);
}
