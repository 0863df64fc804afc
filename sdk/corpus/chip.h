// Another sound control library, beside base.h, for which the same holds: a library of the corpus is this one
// with a piece or two of its own.
//
// The hardware is a file that holds one image byte for byte. A new image is written to a file beside it,
// flushed, read back, and renamed over the old one, so a power cut finds the old or the new firmware
// complete. The image's size is no multiple of a block's.
//
// For C and C++. Each including file is one library.
#ifndef CORPUS_CHIP_H
#define CORPUS_CHIP_H

#ifndef _GNU_SOURCE
#define _GNU_SOURCE // O_TMPFILE and others
#endif
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <tarnwick/control.h>
#include <unistd.h>

#define MAGIC "corpus"
#define IDENTIFIER "empCorpus"
#define CHIP_DIR "/var/lib/hardware"
#define CHIP CHIP_DIR "/chip"
#define BLOCK 4096u
#ifndef BLOCK_US
#define BLOCK_US 15000
#endif
#ifndef RESTART_US
#define RESTART_US 150000
#endif
#define MAYBE_UNUSED __attribute__((unused))

static volatile unsigned progressNow;
static pthread_mutex_t chipMutex MAYBE_UNUSED = PTHREAD_MUTEX_INITIALIZER;

// The pieces, whoever has them.
static MAYBE_UNUSED int chipVersion(char* out);
static MAYBE_UNUSED int writeBlocks(int fd, const unsigned char* data, size_t n);
static MAYBE_UNUSED int verify(const char* path, const unsigned char* data, size_t n);
static MAYBE_UNUSED int chipWrite(const unsigned char* data, size_t n);
static MAYBE_UNUSED int install(const unsigned char* data, size_t n);

static MAYBE_UNUSED int fail(int error)
{
    errno = error;
    return -1;
}

static MAYBE_UNUSED uint32_t checksumOf(const unsigned char* p, size_t n)
{
    uint32_t r = 0;
    while (n--) {
        r ^= (uint32_t)*p++ << 24;
        for (int i = 0; i < 8; i++) {
            r = (r & 0x80000000u) ? (r << 1) ^ 0x01B23CA3u : r << 1;
        }
    }
    return r;
}

// One to four numbers with dots.
static MAYBE_UNUSED int parseVersion(const char* s, unsigned long v[4])
{
    memset(v, 0, 4 * sizeof v[0]);
    for (int i = 0; i < 4; i++) {
        size_t digits = strspn(s, "0123456789");
        if (digits == 0 || digits > 9) {
            return fail(EINVAL);
        }
        v[i] = strtoul(s, NULL, 10);
        s += digits;
        if (*s == '\0') {
            return 0;
        }
        if (*s++ != '.') {
            return fail(EINVAL);
        }
    }
    return fail(EINVAL);
}

static MAYBE_UNUSED int compareVersions(const char* a, const char* b, int* order)
{
    unsigned long x[4], y[4];
    if (parseVersion(a, x) != 0 || parseVersion(b, y) != 0) {
        return -1;
    }
    *order = 0;
    for (int i = 0; i < 4 && *order == 0; i++) {
        *order = (x[i] > y[i]) - (x[i] < y[i]);
    }
    return 0;
}

struct image {
    char version[64];
    size_t size; // of the whole
};

// "corpus VERSION\n", then one and the same line with the version in it up to the end, then kEnd.
static MAYBE_UNUSED int parseImage(const unsigned char* data, size_t n, struct image* image)
{
    static const char kEnd[] = "end of firmware\n";
    char line[128];
    char filling[128];
    unsigned long v[4];
    size_t head = 0;
    const size_t end = n - strlen(kEnd);
    while (head < n && head < sizeof line - 1 && data[head] != '\n') {
        line[head] = (char)data[head];
        head++;
    }
    line[head] = '\0';
    if (n < BLOCK || head == sizeof line - 1 || sscanf(line, MAGIC " %63s", image->version) != 1 ||
        parseVersion(image->version, v) != 0 || memcmp(data + end, kEnd, strlen(kEnd)) != 0) {
        return fail(EBADMSG);
    }
    const size_t length =
        (size_t)snprintf(filling, sizeof filling, "firmware %s of the corpus\n", image->version);
    for (size_t at = head + 1; at < end; at++) {
        if (data[at] != (unsigned char)filling[(at - head - 1) % length]) {
            return fail(EBADMSG);
        }
    }
    image->size = n;
    return 0;
}

// The whole file, to be freed.
static MAYBE_UNUSED unsigned char* slurp(const char* path, size_t* n)
{
    struct stat st;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return NULL;
    }
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > 8 * 1024 * 1024) {
        close(fd);
        errno = EFBIG;
        return NULL;
    }
    unsigned char* data = (unsigned char*)malloc((size_t)st.st_size + 1);
    size_t have = 0;
    while (data != NULL && have < (size_t)st.st_size) {
        ssize_t got = read(fd, data + have, (size_t)st.st_size - have);
        if (got <= 0) {
            free(data);
            data = NULL;
            if (got == 0) {
                errno = EIO;
            }
            break;
        }
        have += (size_t)got;
    }
    int kept = errno;
    close(fd);
    errno = kept;
    *n = have;
    return data;
}

#ifndef OWN_chipVersion
// out: TARNWICK_CONTROL_TEXT_SIZE bytes.
static MAYBE_UNUSED int chipVersion(char* out)
{
    char head[160] = {0}, chip[64], version[64];
    int fd = open(CHIP, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    ssize_t got = read(fd, head, sizeof head - 1);
    int kept = errno;
    close(fd);
    errno = kept;
    if (got < 0) {
        return -1;
    }
    if (sscanf(head, "%63s %63s", chip, version) != 2 || strcmp(chip, MAGIC) != 0) {
        return fail(EIO);
    }
    strcpy(out, version);
    return 0;
}
#endif

static MAYBE_UNUSED int writeAll(int fd, const unsigned char* p, size_t n)
{
    while (n > 0) {
        ssize_t put = write(fd, p, n);
        if (put < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        p += put;
        n -= (size_t)put;
    }
    return 0;
}

static MAYBE_UNUSED int closeFailed(int fd)
{
    int kept = errno;
    close(fd);
    errno = kept;
    return -1;
}

static MAYBE_UNUSED int flushDirectory(void)
{
    int fd = open(CHIP_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    int done = fsync(fd);
    int kept = errno;
    close(fd);
    errno = kept;
    return done;
}

#ifndef OWN_writeBlocks
static MAYBE_UNUSED int writeBlocks(int fd, const unsigned char* data, size_t n)
{
    for (size_t at = 0; at < n; at += BLOCK) {
        size_t size = n - at < BLOCK ? n - at : BLOCK;
        if (writeAll(fd, data + at, size) != 0) {
            return -1;
        }
        usleep(BLOCK_US);
        progressNow = (unsigned)((at + size) * 99 / n);
    }
    return 0;
}
#endif

#ifndef OWN_verify
static MAYBE_UNUSED int verify(const char* path, const unsigned char* data, size_t n)
{
    size_t have = 0;
    unsigned char* back = slurp(path, &have);
    if (back == NULL) {
        return -1;
    }
    int same = have == n && memcmp(back, data, n) == 0;
    free(back);
    return same ? 0 : fail(EIO);
}
#endif

#ifndef OWN_chipWrite
static MAYBE_UNUSED int chipWrite(const unsigned char* data, size_t n)
{
    int fd = open(CHIP ".next", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return -1;
    }
    if (writeBlocks(fd, data, n) != 0 || fsync(fd) != 0) {
        return closeFailed(fd);
    }
    close(fd);
    if (verify(CHIP ".next", data, n) != 0 || rename(CHIP ".next", CHIP) != 0 || flushDirectory() != 0) {
        return -1;
    }
    return 0;
}
#endif

#ifndef OWN_install
static MAYBE_UNUSED int install(const unsigned char* data, size_t n)
{
    struct image image;
    if (parseImage(data, n, &image) != 0) {
        return -1;
    }
    if (pthread_mutex_trylock(&chipMutex) != 0) {
        return fail(EBUSY);
    }
    progressNow = 0;
    int done = chipWrite(data, n);
    int kept = errno;
    if (done == 0) {
        usleep(RESTART_US);
        progressNow = 100;
    }
    pthread_mutex_unlock(&chipMutex);
    errno = kept;
    return done;
}
#endif

#ifndef OWN_setContext
int setContext(const char* name, int caller, char* context)
{
    (void)name;
    (void)caller;
    (void)context;
    return 0;
}
#endif

#ifndef OWN_getEMPID
int getEMPID(char* out)
{
    strcpy(out, IDENTIFIER);
    return 0;
}
#endif

#ifndef OWN_getActiveVersion
int getActiveVersion(char* out)
{
    return chipVersion(out);
}
#endif

#ifndef OWN_checkVersion
int checkVersion(const char* version, int* result)
{
    char active[TARNWICK_CONTROL_TEXT_SIZE];
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    if (chipVersion(active) != 0) {
        return -1;
    }
    return compareVersions(version, active, result);
}
#endif

#ifndef OWN_doUpdate
int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    unsigned char* data = slurp(name, &n);
    if (data == NULL) {
        return -1;
    }
    int done = checksumOf(data, n) == value ? install(data, n) : fail(EBADMSG);
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}
#endif

#ifndef OWN_allUpdateDone
int allUpdateDone(void)
{
    return 0;
}
#endif

#ifndef OWN_doUpdate_decryption
int doUpdate_decryption(const unsigned char* data, int length)
{
    if (length <= 0) {
        return fail(EBADMSG);
    }
    return install(data, (size_t)length);
}
#endif

#ifndef OWN_getExpectedTime
int getExpectedTime(int* out)
{
    *out = 8;
    return 0;
}
#endif

#ifndef OWN_getUpdateProgress
int getUpdateProgress(unsigned int* out)
{
    *out = progressNow;
    return 0;
}
#endif

#endif
