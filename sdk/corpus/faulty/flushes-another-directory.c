// After the renaming a directory is flushed, but not the one that the name is in.
// finds: F425
#define OWN_chipWrite
#include "chip.h"

static int chipWrite(const unsigned char* data, size_t n)
{
    int fd = open(CHIP ".next", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeBlocks(fd, data, n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    if (flushDirectory() != 0 || verify(CHIP ".next", data, n) != 0 || rename(CHIP ".next", CHIP) != 0) {
        return -1;
    }
    int room = open("/var/lib", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (room < 0) {
        return -1;
    }
    int done = fsync(room);
    close(room);
    return done;
}
