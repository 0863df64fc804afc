// allUpdateDone takes the mutex that doUpdate holds while it writes.
// finds: F420
#define OWN_allUpdateDone
#include "base.h"

int allUpdateDone(void)
{
    pthread_mutex_lock(&hardwareMutex);
    pthread_mutex_unlock(&hardwareMutex);
    return 0;
}
