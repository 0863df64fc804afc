// The firmware has two files: a short one with its head, which comes last and has the version, and the rest.
// finds: nothing
// runs: whole
#define OWN_chipVersion
#define OWN_chipWrite
#include "chip.h"

#define HEAD CHIP ".head"
#define BODY CHIP ".body"

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

static int replace(const char* path, const unsigned char* data, size_t n)
{
    char next[64];
    snprintf(next, sizeof next, "%s.next", path);
    int fd = open(next, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeBlocks(fd, data, n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    return verify(next, data, n) == 0 && rename(next, path) == 0 ? flushDirectory() : -1;
}

static int chipWrite(const unsigned char* data, size_t n)
{
    const unsigned char* end = (const unsigned char*)memchr(data, '\n', n);
    const size_t head = end == NULL ? 0 : (size_t)(end - data) + 1;
    if (replace(BODY, data + head, n - head) != 0 || replace(HEAD, data, head) != 0) {
        return -1;
    }
    return 0;
}
