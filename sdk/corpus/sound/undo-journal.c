// A journal: the old firmware is kept in a form of its own, and put back by the next call after a power cut.
// finds: nothing
#define OWN_chipVersion
#define OWN_chipWrite
#include "chip.h"

#define JOURNAL CHIP ".undo" // whole when its name is there

static pthread_mutex_t journalMutex = PTHREAD_MUTEX_INITIALIZER;

static int writeInPlace(const unsigned char* data, size_t n)
{
    int fd = open(CHIP, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    if (writeBlocks(fd, data, n) != 0 || ftruncate(fd, (off_t)n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    return verify(CHIP, data, n);
}

static int clearJournal(void)
{
    return (unlink(JOURNAL) != 0 && errno != ENOENT) || flushDirectory() != 0 ? -1 : 0;
}

static void turn(unsigned char* data, size_t n)
{
    for (size_t at = 0; at < n; at++) {
        data[at] ^= 0xff;
    }
}

static int recover(void)
{
    size_t n = 0;
    unsigned char* old = slurp(JOURNAL, &n);
    if (old == NULL) {
        return errno == ENOENT ? 0 : -1;
    }
    turn(old, n);
    unsigned int before = progressNow;
    int done = writeInPlace(old, n);
    int kept = errno;
    progressNow = before;
    free(old);
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

static int writeJournal(void)
{
    size_t n = 0;
    unsigned char* old = slurp(CHIP, &n);
    if (old == NULL) {
        return -1;
    }
    turn(old, n);
    int fd = open(JOURNAL ".new", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int done = fd < 0 ? -1 : writeAll(fd, old, n) != 0 || fsync(fd) != 0 ? closeFailed(fd) : close(fd);
    int kept = errno;
    if (done == 0) {
        done = verify(JOURNAL ".new", old, n) != 0 || rename(JOURNAL ".new", JOURNAL) != 0 ? -1 : 0;
        kept = errno;
    }
    free(old);
    errno = kept;
    return done == 0 ? flushDirectory() : -1;
}

static int chipWrite(const unsigned char* data, size_t n)
{
    pthread_mutex_lock(&journalMutex);
    int done = recover() != 0 || writeJournal() != 0 ? -1 : 0;
    int kept = errno;
    if (done == 0) {
        done = writeInPlace(data, n) != 0 || clearJournal() != 0 ? -1 : 0;
        kept = errno;
        if (done != 0) {
            (void)recover();
        }
    }
    pthread_mutex_unlock(&journalMutex);
    errno = kept;
    return done;
}
