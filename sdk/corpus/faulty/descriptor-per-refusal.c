// A refused doUpdate leaves the image open.
// finds: F310
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    int fd = open(name, O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (fd < 0) {
        return -1;
    }
    if (fstat(fd, &st) != 0 || st.st_size > 8 * 1024 * 1024) {
        close(fd);
        return fail(EFBIG);
    }
    size_t n = (size_t)st.st_size;
    unsigned char* data = (unsigned char*)malloc(n + 1);
    if (data == NULL || read(fd, data, n) != (ssize_t)n) {
        free(data);
        return closeFailed(fd);
    }
    if (checksumOf(data, n) != value) {
        free(data);
        return fail(EBADMSG);
    }
    close(fd);
    int done = install(data, n);
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}
