// The progress is 100 before the first update.
// finds: F417
#define OWN_getUpdateProgress
#define OWN_install
#include "chip.h"

static int running;

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
    __atomic_store_n(&running, 1, __ATOMIC_SEQ_CST);
    int done = chipWrite(data, n);
    int kept = errno;
    usleep(RESTART_US);
    __atomic_store_n(&running, 0, __ATOMIC_SEQ_CST);
    pthread_mutex_unlock(&chipMutex);
    errno = kept;
    return done;
}

int getUpdateProgress(unsigned int* out)
{
    *out = __atomic_load_n(&running, __ATOMIC_SEQ_CST) ? progressNow : 100;
    return 0;
}
