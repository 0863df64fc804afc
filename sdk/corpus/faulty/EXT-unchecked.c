// An external module that writes its image without a look at it.
// finds: F410
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    size_t n = 0;
    (void)name;
    (void)value;
    unsigned char* data = slurp("/lib/firmware/ext/Corpus/Corpus.bin", &n);
    if (data == NULL) {
        return -1;
    }
    if (pthread_mutex_trylock(&chipMutex) != 0) {
        free(data);
        return fail(EBUSY);
    }
    progressNow = 0;
    int done = chipWrite(data, n);
    int kept = errno;
    usleep(RESTART_US);
    progressNow = 100;
    pthread_mutex_unlock(&chipMutex);
    free(data);
    errno = kept;
    return done;
}
