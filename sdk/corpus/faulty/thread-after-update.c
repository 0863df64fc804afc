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
    pthread_t thread;
    if (!isImageIn(chip, slot)) {
        return -1;
    }
    return pthread_create(&thread, NULL, verifyLater, NULL) == 0 ? pthread_detach(thread) : -1;
}
