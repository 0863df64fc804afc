// An image that is refused for its content leaves the chip busy for ever.
// finds: F418
#define OWN_install
#include "chip.h"

static int install(const unsigned char* data, size_t n)
{
    struct image image;
    if (pthread_mutex_trylock(&chipMutex) != 0) {
        return fail(EBUSY);
    }
    progressNow = 0;
    if (parseImage(data, n, &image) != 0) {
        return -1;
    }
    int done = chipWrite(data, n);
    int kept = errno;
    usleep(RESTART_US);
    progressNow = 100;
    pthread_mutex_unlock(&chipMutex);
    errno = kept;
    return done;
}
