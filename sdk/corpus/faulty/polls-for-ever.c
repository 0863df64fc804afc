// getUpdateProgress starts a thread that stays.
// finds: F309
#define OWN_getUpdateProgress
#include "chip.h"

static volatile int polled;

static void* poll_chip(void* arg)
{
    struct stat st;
    (void)arg;
    for (;;) {
        polled = stat(CHIP ".next", &st) == 0;
        usleep(200000);
    }
    return NULL;
}

int getUpdateProgress(unsigned int* out)
{
    static pthread_t thread;
    static int started;
    if (!started) {
        started = pthread_create(&thread, NULL, poll_chip, NULL) == 0;
    }
    *out = progressNow;
    return 0;
}
