// A child flushes the directory, and is not waited for when that has failed.
// finds: F311
#define _GNU_SOURCE // pipe2
#include <sys/wait.h>
#define OWN_chipWrite
#include "chip.h"

static int flushInChild(void)
{
    char failure = 0;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return -1;
    }
    const pid_t child = fork();
    if (child == 0) {
        failure = flushDirectory() == 0 ? 0 : (char)errno;
        _exit(write(ends[1], &failure, 1) == 1 ? 0 : 1);
    }
    close(ends[1]);
    const ssize_t told = child < 0 ? -1 : read(ends[0], &failure, 1);
    close(ends[0]);
    if (told != 1 || failure != 0) {
        return fail(told == 1 ? failure : EIO);
    }
    waitpid(child, NULL, 0);
    return 0;
}

static int chipWrite(const unsigned char* data, size_t n)
{
    const int fd = open(CHIP ".next", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeBlocks(fd, data, n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    if (verify(CHIP ".next", data, n) != 0 || rename(CHIP ".next", CHIP) != 0) {
        return -1;
    }
    return flushInChild();
}
