// allUpdateDone lets the hardware rest, but only when nobody writes it.
// finds: nothing
#define OWN_allUpdateDone
#include "base.h"

int allUpdateDone(void)
{
    if (pthread_mutex_trylock(&hardwareMutex) != 0) {
        return 0; // an update is at work, and does it itself
    }
    pause_ms(1);
    pthread_mutex_unlock(&hardwareMutex);
    return 0;
}
