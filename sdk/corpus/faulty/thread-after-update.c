// doUpdate leaves a thread behind that verifies the hardware later.
// finds: F309
#define OWN_verifySlot
#include "base.h"

static void* verifyLater(void* nothing)
{
    pause_ms(600000);
    return nothing;
}

static inline int verifySlot(int chip, int slot)
{
    (void)chip, (void)slot;
    pthread_t thread;
    return pthread_create(&thread, NULL, verifyLater, NULL) == 0 ? pthread_detach(thread) : -1;
}
