// For a library on chip.h with OWN_chipWrite: one bank, whose head is erased first and written last.
#ifndef CORPUS_HEAD_LAST_H
#define CORPUS_HEAD_LAST_H

#include "chip.h"

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

#endif
