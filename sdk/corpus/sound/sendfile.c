// Copies from file to file in the kernel; the notice only tries the lock.
// finds: nothing
#include <sys/sendfile.h>
#define OWN_doUpdate
#define OWN_allUpdateDone
#include "chip.h"

static int copy_and_swap(const char* path, const unsigned char* data, size_t n)
{
    int in = open(path, O_RDONLY | O_CLOEXEC);
    int out = open(CHIP ".next", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int done = in < 0 || out < 0 ? -1 : 0;
    for (size_t have = 0; done == 0 && have < n;) {
        ssize_t put = sendfile(out, in, NULL, BLOCK);
        if (put <= 0) {
            done = put == 0 ? fail(EIO) : -1;
            break;
        }
        have += (size_t)put;
        usleep(BLOCK_US);
        progressNow = (unsigned)(have * 99 / n);
    }
    if (done == 0) {
        done = fsync(out);
    }
    int kept = errno;
    if (in >= 0) {
        close(in);
    }
    if (out >= 0) {
        close(out);
    }
    errno = kept;
    if (done != 0 || verify(CHIP ".next", data, n) != 0 || rename(CHIP ".next", CHIP) != 0) {
        return -1;
    }
    return flushDirectory();
}

int doUpdate(const char* name, unsigned long value)
{
    char path[4096];
    size_t n = 0;
    struct image image;
    if (strlen(name) >= sizeof path) {
        return fail(ENAMETOOLONG);
    }
    strcpy(path, name);
    unsigned char* data = slurp(path, &n);
    if (data == NULL) {
        return -1;
    }
    int done = -1;
    if (checksumOf(data, n) != value) {
        fail(EBADMSG);
    } else if (parseImage(data, n, &image) == 0) {
        if (pthread_mutex_trylock(&chipMutex) != 0) {
            fail(EBUSY);
        } else {
            progressNow = 0;
            done = copy_and_swap(path, data, n);
            int kept = errno;
            if (done == 0) {
                usleep(RESTART_US);
                progressNow = 100;
            }
            pthread_mutex_unlock(&chipMutex);
            errno = kept;
        }
    }
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}

int allUpdateDone(void)
{
    if (pthread_mutex_trylock(&chipMutex) == 0) {
        unlink(CHIP ".next");
        pthread_mutex_unlock(&chipMutex);
    }
    return 0;
}
