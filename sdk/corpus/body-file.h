// For a library on chip.h: the firmware has two files. A short one with its head comes last and has the
// version; the rest is written to a file beside its place, and what a cut-off update has left there may be
// gone on with.
#ifndef CORPUS_BODY_FILE_H
#define CORPUS_BODY_FILE_H

#define OWN_chipVersion
#define OWN_chipWrite
#include "chip.h"

#define HEAD CHIP ".head"
#define BODY CHIP ".body"
#define STAGE BODY ".next"

// The piece that a library has of its own: how many bytes of the stage are kept, and how many of those need
// not be read back.
static size_t keptBytes(int stage, const unsigned char* data, size_t n, size_t* unread);

static int chipVersion(char* out)
{
    char head[160] = {0};
    int fd = open(HEAD, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        fd = open(CHIP, O_RDONLY | O_CLOEXEC); // as it comes from the factory
    }
    if (fd < 0) {
        return -1;
    }
    ssize_t got = read(fd, head, sizeof head - 1);
    if (got < 0) {
        return closeFailed(fd);
    }
    close(fd);
    return sscanf(head, MAGIC " %63s", out) == 1 ? 0 : fail(EIO);
}

static int isThere(int fd, const unsigned char* data, size_t n, size_t from)
{
    unsigned char back[BLOCK];
    for (size_t at = from; at < n; at += BLOCK) {
        const size_t size = n - at < BLOCK ? n - at : BLOCK;
        const ssize_t got = pread(fd, back, size, (off_t)at);
        if (got != (ssize_t)size || memcmp(back, data + at, size) != 0) {
            return got < 0 ? 0 : (errno = EIO, 0);
        }
    }
    return 1;
}

static int replaceBody(const unsigned char* data, size_t n)
{
    size_t unread = 0;
    int fd = open(STAGE, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    const size_t kept = keptBytes(fd, data, n, &unread);
    if (lseek(fd, (off_t)kept, SEEK_SET) < 0 || writeBlocks(fd, data + kept, n - kept) != 0 ||
        ftruncate(fd, (off_t)n) != 0 || fsync(fd) != 0 || !isThere(fd, data, n, unread)) {
        return closeFailed(fd);
    }
    close(fd);
    return rename(STAGE, BODY) == 0 ? flushDirectory() : -1;
}

static int replaceHead(const unsigned char* data, size_t n)
{
    int fd = open(HEAD ".next", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeAll(fd, data, n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    return verify(HEAD ".next", data, n) == 0 && rename(HEAD ".next", HEAD) == 0 ? flushDirectory() : -1;
}

static int chipWrite(const unsigned char* data, size_t n)
{
    const unsigned char* end = (const unsigned char*)memchr(data, '\n', n);
    const size_t head = end == NULL ? 0 : (size_t)(end - data) + 1;
    return replaceBody(data + head, n - head) != 0 ? -1 : replaceHead(data, head);
}

#endif
