// A child process writes, and tells its progress through shared memory.
// finds: nothing
#include <sys/mman.h>
#include <sys/wait.h>
#define OWN_doUpdate
#define OWN_doUpdate_decryption
#define OWN_getUpdateProgress
#define OWN_writeBlocks
#include "chip.h"

static unsigned* volatile shared;

static int writeBlocks(int fd, const unsigned char* data, size_t n)
{
    for (size_t at = 0; at < n; at += BLOCK) {
        size_t size = n - at < BLOCK ? n - at : BLOCK;
        if (writeAll(fd, data + at, size) != 0) {
            return -1;
        }
        usleep(BLOCK_US);
        __atomic_store_n(shared, (unsigned)((at + size) * 99 / n), __ATOMIC_SEQ_CST);
    }
    return 0;
}

static int install_in_child(const unsigned char* data, size_t n)
{
    int status = 0;
    pid_t child = fork();
    if (child < 0) {
        return -1;
    }
    if (child == 0) {
        _exit(install(data, n) == 0 ? 0 : errno & 127);
    }
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    if (!WIFEXITED(status)) {
        return fail(EIO);
    }
    return WEXITSTATUS(status) == 0 ? 0 : fail(WEXITSTATUS(status));
}

static int install_shared(const unsigned char* data, size_t n)
{
    if (shared == NULL) {
        void* page = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (page == MAP_FAILED) {
            return -1;
        }
        shared = (unsigned*)page;
    }
    struct image image;
    if (parseImage(data, n, &image) != 0) {
        return -1;
    }
    __atomic_store_n(shared, 0, __ATOMIC_SEQ_CST);
    int done = install_in_child(data, n);
    if (done == 0) {
        __atomic_store_n(shared, 100, __ATOMIC_SEQ_CST);
    }
    return done;
}

int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    unsigned char* data = slurp(name, &n);
    if (data == NULL) {
        return -1;
    }
    int done = checksumOf(data, n) == value ? install_shared(data, n) : fail(EBADMSG);
    int kept = errno;
    free(data);
    errno = kept;
    return done;
}

int doUpdate_decryption(const unsigned char* data, int length)
{
    return length <= 0 ? fail(EBADMSG) : install_shared(data, (size_t)length);
}

int getUpdateProgress(unsigned int* out)
{
    *out = shared == NULL ? 0 : __atomic_load_n(shared, __ATOMIC_SEQ_CST);
    return 0;
}
