// getUpdateProgress takes the mutex that doUpdate holds while it writes.
// finds: F407
#define OWN_getUpdateProgress
#include "base.h"

int getUpdateProgress(unsigned int* out)
{
    pthread_mutex_lock(&hardwareMutex);
    *out = progress;
    pthread_mutex_unlock(&hardwareMutex);
    return 0;
}
