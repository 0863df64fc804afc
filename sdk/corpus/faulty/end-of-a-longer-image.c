// Behind the offered image stays the end of a longer one, whose update was cut off.
// finds: F502
#define OWN_chipVersion
#define OWN_chipWrite
#define OWN_verify
#include "chip.h"

// The version stands in each line, and the end is read.
static int chipVersion(char* out)
{
    char end[160] = {0};
    int fd = open(CHIP, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    const off_t size = lseek(fd, 0, SEEK_END);
    const ssize_t got = pread(fd, end, sizeof end - 1, size - (off_t)sizeof end + 1);
    if (got < 0) {
        return closeFailed(fd);
    }
    close(fd);
    const char* line = strstr(end, "\nfirmware ");
    if (line == NULL || sscanf(line, "\nfirmware %63s", out) != 1) {
        return fail(EIO);
    }
    return 0;
}

static int verify(const char* path, const unsigned char* data, size_t n)
{
    unsigned char block[BLOCK];
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    for (size_t at = 0; at < n;) { // what is behind it is not looked at
        const size_t part = n - at < sizeof block ? n - at : sizeof block;
        const ssize_t got = pread(fd, block, part, (off_t)at);
        if (got <= 0 || memcmp(block, data + at, (size_t)got) != 0) {
            errno = EIO;
            return closeFailed(fd);
        }
        at += (size_t)got;
    }
    close(fd);
    return 0;
}

static int chipWrite(const unsigned char* data, size_t n)
{
    int fd = open(CHIP ".next", O_WRONLY | O_CREAT | O_CLOEXEC, 0644); // O_TRUNC is missing
    if (fd < 0) {
        return -1;
    }
    if (writeBlocks(fd, data, n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    if (verify(CHIP ".next", data, n) != 0 || rename(CHIP ".next", CHIP) != 0 || flushDirectory() != 0) {
        return -1;
    }
    return 0;
}
