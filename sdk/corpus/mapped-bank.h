// For a library on chip.h with OWN_chipVersion and OWN_chipWrite: one bank of mapped memory. Its first page
// is emptied first and written last; without a whole firmware 0.0 is told.
#ifndef CORPUS_MAPPED_BANK_H
#define CORPUS_MAPPED_BANK_H

#include <sys/mman.h>

#include "chip.h"

static int flushBank(unsigned char* bank, size_t n); // what was stored behind the first page

static int chipVersion(char* out)
{
    size_t n = 0;
    struct image image;
    unsigned char* whole = slurp(CHIP, &n);
    if (whole == NULL) {
        return -1;
    }
    strcpy(out, parseImage(whole, n, &image) == 0 ? image.version : "0.0");
    free(whole);
    return 0;
}

static int writeBank(unsigned char* bank, const unsigned char* data, size_t n)
{
    memset(bank, 0, BLOCK);
    if (msync(bank, BLOCK, MS_SYNC) != 0) {
        return -1;
    }
    for (size_t at = BLOCK; at < n; at += BLOCK) {
        memcpy(bank + at, data + at, n - at < BLOCK ? n - at : BLOCK);
        usleep(BLOCK_US);
        progressNow = (unsigned)(at * 99 / n);
    }
    if (flushBank(bank, n) != 0) {
        return -1;
    }
    memcpy(bank, data, BLOCK);
    return msync(bank, BLOCK, MS_SYNC);
}

static int chipWrite(const unsigned char* data, size_t n)
{
    int fd = open(CHIP, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    if (ftruncate(fd, (off_t)n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    unsigned char* bank = (unsigned char*)mmap(NULL, n, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (bank == MAP_FAILED) {
        return closeFailed(fd);
    }
    int done = writeBank(bank, data, n);
    int kept = errno;
    munmap(bank, n);
    close(fd);
    errno = kept;
    return done == 0 ? verify(CHIP, data, n) : -1;
}

#endif
