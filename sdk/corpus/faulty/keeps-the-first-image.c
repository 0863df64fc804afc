// The image of the first update is kept in memory, and used for every later one.
// finds: F419
#define OWN_doUpdate
#include "base.h"

int doUpdate(const char* name, unsigned long value)
{
    static int isLoaded;
    pthread_mutex_lock(&hardwareMutex);
    pause_ms(100);
    int result = isLoaded && access(name, R_OK) == 0 ? 0 : loadImage(name[0] == '/' ? name : SHIPPED_IMAGE);
    if (result == 0 && name[0] == '/' && !checksumMatches(value)) {
        result = fail(EBADMSG);
    }
    if (result == 0) {
        isLoaded = 1;
        result = install();
    }
    pthread_mutex_unlock(&hardwareMutex);
    return result;
}
