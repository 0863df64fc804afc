// The old firmware runs from a spare copy while the bank is written, and that is removed when a write fails.
// finds: F413
#define OWN_chipVersion
#define OWN_chipWrite
#define OWN_writeBlocks
#include "chip.h"

#define SPARE CHIP ".spare" // whole when its name is there

static int versionIn(const char* path, char* out)
{
    size_t n = 0;
    struct image image;
    unsigned char* whole = slurp(path, &n);
    if (whole == NULL) {
        return -1;
    }
    strcpy(out, parseImage(whole, n, &image) == 0 ? image.version : "0.0");
    free(whole);
    return 0;
}

static int chipVersion(char* out)
{
    return versionIn(SPARE, out) == 0 ? 0 : versionIn(CHIP, out);
}

static int writeBlocks(int fd, const unsigned char* data, size_t n)
{
    const unsigned begin = progressNow; // the spare copy comes to the half of it
    for (size_t at = 0; at < n; at += BLOCK) {
        const size_t size = n - at < BLOCK ? n - at : BLOCK;
        if (writeAll(fd, data + at, size) != 0) {
            return -1;
        }
        usleep(BLOCK_US);
        progressNow = begin + (unsigned)((at + size) * 49 / n);
    }
    return 0;
}

static int put(const char* path, int flags, const unsigned char* data, size_t n)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeBlocks(fd, data, n) != 0 || ftruncate(fd, (off_t)n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    return verify(path, data, n);
}

static int keepOld(void)
{
    size_t n = 0;
    if (access(SPARE, F_OK) == 0) {
        return 0; // of an update that was cut off
    }
    unsigned char* old = slurp(CHIP, &n);
    if (old == NULL) {
        return -1;
    }
    int done = put(SPARE ".next", O_TRUNC, old, n);
    int kept = errno;
    free(old);
    errno = kept;
    return done == 0 && rename(SPARE ".next", SPARE) == 0 ? flushDirectory() : -1;
}

static int chipWrite(const unsigned char* data, size_t n)
{
    if (keepOld() != 0) {
        return -1;
    }
    int done = put(CHIP, 0, data, n);
    int kept = errno;
    if ((unlink(SPARE) != 0 || flushDirectory() != 0) && done == 0) {
        return -1;
    }
    errno = kept;
    return done;
}
