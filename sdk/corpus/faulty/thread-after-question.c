// getActiveVersion starts a thread that watches the hardware for good.
// finds: F309
#define OWN_getActiveVersion
#include "base.h"

static void* watch(void* nothing)
{
    for (;;) {
        pause_ms(1000);
    }
    return nothing;
}

int getActiveVersion(char* out)
{
    static int isWatched;
    pthread_t thread;
    if (!isWatched) {
        isWatched = pthread_create(&thread, NULL, watch, NULL) == 0;
    }
    return readVersion(out);
}
