// allUpdateDone waits for the mutex that doUpdate holds.
// finds: F420
#define BLOCK_US 80000
#define OWN_allUpdateDone
#include "chip.h"

int allUpdateDone(void)
{
    pthread_mutex_lock(&chipMutex);
    int done = unlink(CHIP ".next");
    pthread_mutex_unlock(&chipMutex);
    return done == 0 || errno == ENOENT ? 0 : -1;
}
