// One write into an unnamed file, which gets its name when it is complete.
// finds: nothing
#define _GNU_SOURCE // O_TMPFILE
#include <sys/uio.h>
#define OWN_chipWrite
#include "chip.h"

static int chipWrite(const unsigned char* data, size_t n)
{
    char path[64];
    struct iovec parts[2] = {{(void*)data, n / 2}, {(void*)(data + n / 2), n - n / 2}};
    int fd = open(CHIP_DIR, O_TMPFILE | O_RDWR | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (pwritev(fd, parts, 2, 0) != (ssize_t)n || fsync(fd) != 0) {
        if (errno == 0) {
            errno = EIO;
        }
        return closeFailed(fd);
    }
    progressNow = 60;
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    unlink(CHIP ".next"); // of a power cut between the next two
    if (verify(path, data, n) != 0 ||
        linkat(AT_FDCWD, path, AT_FDCWD, CHIP ".next", AT_SYMLINK_FOLLOW) != 0 ||
        rename(CHIP ".next", CHIP) != 0 || flushDirectory() != 0) {
        return closeFailed(fd);
    }
    close(fd);
    return 0;
}
