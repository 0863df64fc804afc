// Questions about the version wait for the update, under one mutex; the progress does not.
// finds: nothing
#define OWN_getActiveVersion
#define OWN_checkVersion
#include "base.h"

int getActiveVersion(char* out)
{
    pthread_mutex_lock(&hardwareMutex);
    const int result = readVersion(out);
    pthread_mutex_unlock(&hardwareMutex);
    return result;
}

int checkVersion(const char* version, int* result)
{
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    pthread_mutex_lock(&hardwareMutex);
    const int status = compareVersion(version, result);
    pthread_mutex_unlock(&hardwareMutex);
    return status;
}
