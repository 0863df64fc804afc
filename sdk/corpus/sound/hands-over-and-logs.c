// The image is handed over in a file that nobody flushes; what is made of that is flushed.
// finds: nothing
// runs: whole
//
// The old firmware gets a second name meanwhile, and a line of a log, unflushed, comes last.
#define OWN_chipWrite
#include "chip.h"

static MAYBE_UNUSED int writeFile(const char* path, const unsigned char* data, size_t n, int isFlushed)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (isFlushed ? writeBlocks(fd, data, n) != 0 || fsync(fd) != 0 : writeAll(fd, data, n) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    return verify(path, data, n);
}

static int handOver(const unsigned char* data, size_t n)
{
    size_t have = 0;
    if (writeFile(CHIP ".in", data, n, 0) != 0) {
        return -1;
    }
    unsigned char* in = slurp(CHIP ".in", &have);
    if (in == NULL) {
        return -1;
    }
    int done = writeFile(CHIP ".next", in, have, 1);
    int kept = errno;
    free(in);
    errno = kept;
    return done;
}

static int chipWrite(const unsigned char* data, size_t n)
{
    unlink(CHIP ".old");
    if (handOver(data, n) != 0 || (link(CHIP, CHIP ".old") != 0 && errno != ENOENT) ||
        verify(CHIP ".next", data, n) != 0 || rename(CHIP ".next", CHIP) != 0 || flushDirectory() != 0) {
        return -1;
    }
    FILE* log = fopen(CHIP ".log", "ae");
    if (log != NULL) {
        fprintf(log, "written: %zu bytes\n", n);
        fclose(log);
    }
    return 0;
}
