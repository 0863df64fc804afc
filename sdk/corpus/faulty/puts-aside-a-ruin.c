// The old firmware is put aside while the new one is written, and at the next update a ruin is.
// finds: F501
#define OWN_chipVersion
#define OWN_chipWrite
#include "chip.h"

#define ASIDE CHIP ".aside"

static MAYBE_UNUSED int chipVersion(char* out)
{
    char head[160] = {0}, version[64];
    int fd = open(ASIDE, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        fd = open(CHIP, O_RDONLY | O_CLOEXEC);
    }
    if (fd < 0) {
        return -1;
    }
    struct stat st;
    char end[16] = "";
    int isWhole = fstat(fd, &st) == 0 && st.st_size > 16 && read(fd, head, sizeof head - 1) > 0 &&
                  pread(fd, end, 16, st.st_size - 16) == 16 && memcmp(end, "end of firmware\n", 16) == 0;
    close(fd);
    if (!isWhole || sscanf(head, MAGIC " %63s", version) != 1) {
        return fail(EIO);
    }
    strcpy(out, version);
    return 0;
}

static int chipWrite(const unsigned char* data, size_t n)
{
    if (access(CHIP, F_OK) == 0 && (rename(CHIP, ASIDE) != 0 || flushDirectory() != 0)) {
        return -1;
    }
    int fd = open(CHIP, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeBlocks(fd, data, n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    if (flushDirectory() != 0 || verify(CHIP, data, n) != 0 || unlink(ASIDE) != 0) {
        return -1;
    }
    return flushDirectory();
}
