// doUpdate_decryption writes whatever it is given.
// finds: F414
#define OWN_doUpdate_decryption
#include "chip.h"

int doUpdate_decryption(const unsigned char* data, int length)
{
    if (length <= 0) {
        return fail(EBADMSG);
    }
    if (pthread_mutex_trylock(&chipMutex) != 0) {
        return fail(EBUSY);
    }
    progressNow = 0;
    int done = chipWrite(data, (size_t)length);
    int kept = errno;
    usleep(RESTART_US);
    progressNow = 100;
    pthread_mutex_unlock(&chipMutex);
    errno = kept;
    return done;
}
