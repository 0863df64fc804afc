// The image's last line tells that it is whole, and is not stored.
// finds: nothing
#define OWN_install
#include "chip.h"

static int install(const unsigned char* data, size_t n)
{
    struct image image;
    if (parseImage(data, n, &image) != 0) {
        return -1;
    }
    if (pthread_mutex_trylock(&chipMutex) != 0) {
        return fail(EBUSY);
    }
    progressNow = 0;
    int done = chipWrite(data, n - strlen("end of firmware\n"));
    int kept = errno;
    if (done == 0) {
        usleep(RESTART_US);
        progressNow = 100;
    }
    pthread_mutex_unlock(&chipMutex);
    errno = kept;
    return done;
}
