// getActiveVersion locks a mutex twice.
// finds: F301
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    pthread_mutex_lock(&hardwareMutex);
    pthread_mutex_lock(&hardwareMutex);
    const int result = readVersion(out);
    pthread_mutex_unlock(&hardwareMutex);
    return result;
}
