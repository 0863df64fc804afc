// Without the hardware 0.0 is told, and after a write that failed the library stays busy.
// finds: F221 F418
#define OWN_getActiveVersion
#define OWN_chipVersion
#define OWN_writeBlocks
#define OWN_verify
#define OWN_install
#include "chip.h"

static int isBusy;

// Every byte is kept inverted, as by some memories, so that the image is nowhere byte for byte.
static void invert(unsigned char* data, size_t n)
{
    for (size_t at = 0; at < n; at++) {
        data[at] = (unsigned char)~data[at];
    }
}

// What the factory has put there is not inverted.
static int chipVersion(char* out)
{
    size_t n = 0;
    struct image image;
    unsigned char* whole = slurp(CHIP, &n);
    if (whole == NULL) {
        return -1;
    }
    if (n > 0 && whole[0] != 'c') {
        invert(whole, n);
    }
    int done = parseImage(whole, n, &image);
    free(whole);
    if (done == 0) {
        strcpy(out, image.version);
    }
    return done;
}

int getActiveVersion(char* out)
{
    if (access(CHIP, F_OK) != 0) {
        strcpy(out, "0.0");
        return 0;
    }
    return chipVersion(out);
}

static int writeBlocks(int fd, const unsigned char* data, size_t n)
{
    unsigned char block[BLOCK];
    for (size_t at = 0; at < n; at += BLOCK) {
        size_t size = n - at < BLOCK ? n - at : BLOCK;
        memcpy(block, data + at, size);
        invert(block, size);
        if (writeAll(fd, block, size) != 0) {
            return -1;
        }
        usleep(BLOCK_US);
        progressNow = (unsigned)((at + size) * 99 / n);
    }
    return 0;
}

static int verify(const char* path, const unsigned char* data, size_t n)
{
    size_t have = 0;
    unsigned char* back = slurp(path, &have);
    if (back == NULL) {
        return -1;
    }
    invert(back, have);
    int same = have == n && memcmp(back, data, n) == 0;
    free(back);
    return same ? 0 : fail(EIO);
}

static int install(const unsigned char* data, size_t n)
{
    struct image image;
    if (parseImage(data, n, &image) != 0) {
        return -1;
    }
    if (access(CHIP, W_OK) != 0) {
        return -1;
    }
    if (isBusy) {
        return fail(EBUSY);
    }
    isBusy = 1;
    progressNow = 0;
    int done = chipWrite(data, n);
    if (done == 0) { // and not when it has failed
        usleep(RESTART_US);
        progressNow = 100;
        isBusy = 0;
    }
    return done;
}
