// getUpdateProgress waits for the mutex that doUpdate holds.
// finds: F407
#define OWN_getUpdateProgress
#include "chip.h"

int getUpdateProgress(unsigned int* out)
{
    pthread_mutex_lock(&chipMutex);
    *out = progressNow;
    pthread_mutex_unlock(&chipMutex);
    return 0;
}
