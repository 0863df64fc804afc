// One bank, which is erased before more than the beginning and the end of the image has been looked at.
// finds: F413
#define OWN_chipVersion
#define OWN_chipWrite
#define OWN_install
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
    struct image image;
    if (parseImage(data, n, &image) != 0) {
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

static int install(const unsigned char* data, size_t n)
{
    static const char kMagic[] = MAGIC " ";
    static const char kEnd[] = "end of firmware\n";
    if (n < BLOCK || memcmp(data, kMagic, strlen(kMagic)) != 0 ||
        memcmp(data + n - strlen(kEnd), kEnd, strlen(kEnd)) != 0) {
        return fail(EBADMSG);
    }
    progressNow = 0;
    if (chipWrite(data, n) != 0) {
        return -1;
    }
    usleep(RESTART_US);
    progressNow = 100;
    return 0;
}
