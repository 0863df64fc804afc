// The image is sent from file to file, and compared with itself afterwards.
// finds: F402 F424
//
// doUpdate_decryption looks at the image and writes nothing.
#define _GNU_SOURCE
#include <sys/sendfile.h>
#define OWN_chipWrite
#define OWN_doUpdate
#define OWN_doUpdate_decryption
#include "chip.h"

static const char* imagePath;

static int chipWrite(const unsigned char* data, size_t n)
{
    const int from = open(imagePath, O_RDONLY | O_CLOEXEC);
    const int fd = open(CHIP ".next", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    size_t done = 0;
    ssize_t sent = 1;
    while (from >= 0 && fd >= 0 && done < n && sent > 0) {
        sent = sendfile(fd, from, NULL, BLOCK);
        done += sent > 0 ? (size_t)sent : 0;
        usleep(BLOCK_US);
        progressNow = (unsigned)(done * 99 / n);
    }
    int result = done == n && fsync(fd) == 0 ? 0 : -1;
    close(from);
    close(fd);
    if (result == 0 &&
        (verify(imagePath, data, n) != 0 || rename(CHIP ".next", CHIP) != 0 || flushDirectory() != 0)) {
        result = -1;
    }
    return result;
}

int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    unsigned char* data = slurp(name, &n);
    if (data == NULL) {
        return -1;
    }
    imagePath = name;
    int done = checksumOf(data, n) == value ? install(data, n) : fail(EBADMSG);
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}

int doUpdate_decryption(const unsigned char* data, int length)
{
    struct image image;
    if (length <= 0 || parseImage(data, (size_t)length, &image) != 0) {
        return fail(EBADMSG);
    }
    usleep(RESTART_US);
    return 0;
}
