// A journal: the new firmware is kept beside the chip, then written into it, or by the next call.
// finds: nothing
#define OWN_chipVersion
#define OWN_chipWrite
#include "chip.h"

#define JOURNAL CHIP ".journal" // whole when its name is there

static pthread_mutex_t journalMutex = PTHREAD_MUTEX_INITIALIZER;

static int writeInPlace(const unsigned char* data, size_t n, unsigned int from)
{
    int fd = open(CHIP, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    for (size_t at = 0; at < n; at += BLOCK) {
        size_t size = n - at < BLOCK ? n - at : BLOCK;
        if (writeAll(fd, data + at, size) != 0) {
            return closeFailed(fd);
        }
        usleep(BLOCK_US / 2);
        if (from > 0) {
            progressNow = from + (unsigned)((at + size) * (99 - from) / n);
        }
    }
    if (ftruncate(fd, (off_t)n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    return verify(CHIP, data, n);
}

// The journal may come back at a power cut, and is written once more then.
static int clearJournal(void)
{
    if (unlink(JOURNAL) != 0 && errno != ENOENT) {
        return -1;
    }
    flushDirectory();
    return 0;
}

static int recover(void)
{
    size_t n = 0;
    unsigned char* data = slurp(JOURNAL, &n);
    if (data == NULL) {
        return errno == ENOENT ? 0 : -1;
    }
    int done = writeInPlace(data, n, 0);
    int kept = errno;
    free(data);
    errno = kept;
    return done == 0 ? clearJournal() : -1;
}

static int chipVersion(char* out)
{
    size_t n = 0;
    struct image image;
    pthread_mutex_lock(&journalMutex);
    unsigned char* whole = recover() == 0 ? slurp(CHIP, &n) : NULL;
    int done = whole == NULL ? -1 : parseImage(whole, n, &image);
    int kept = errno;
    free(whole);
    pthread_mutex_unlock(&journalMutex);
    errno = kept;
    if (done == 0) {
        strcpy(out, image.version);
    }
    return done;
}

static int writeJournal(const unsigned char* data, size_t n)
{
    int fd = open(JOURNAL ".new", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    for (size_t at = 0; at < n; at += BLOCK) {
        size_t size = n - at < BLOCK ? n - at : BLOCK;
        if (writeAll(fd, data + at, size) != 0) {
            return closeFailed(fd);
        }
        usleep(BLOCK_US / 2);
        progressNow = (unsigned)((at + size) * 49 / n);
    }
    if (fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    return verify(JOURNAL ".new", data, n) != 0 || rename(JOURNAL ".new", JOURNAL) != 0 ||
                   flushDirectory() != 0
               ? -1
               : 0;
}

static int chipWrite(const unsigned char* data, size_t n)
{
    pthread_mutex_lock(&journalMutex);
    int done = recover() != 0 || access(CHIP, W_OK) != 0 || writeJournal(data, n) != 0 ||
                       writeInPlace(data, n, 50) != 0 || clearJournal() != 0
                   ? -1
                   : 0;
    int kept = errno;
    pthread_mutex_unlock(&journalMutex);
    errno = kept;
    return done;
}
