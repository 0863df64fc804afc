// doUpdate leaves the writing to a thread and reports success at once.
// finds: F309 F402
#define OWN_install
#include "base.h"

static void* writeLater(void* nothing)
{
    const int chip = openHardware(O_RDWR);
    const int slot = 1 - activeSlot(chip);
    pause_ms(1000);
    if (writeSlot(chip, slot) == 0 && verifySlot(chip, slot) == 0) {
        switchTo(chip, slot);
    }
    close(chip);
    return nothing;
}

static inline int install(void)
{
    pthread_t thread;
    if (pthread_create(&thread, NULL, writeLater, NULL) != 0) {
        return -1;
    }
    for (unsigned int percent = 0; percent <= 100; percent += 10) {
        setProgress(percent);
        pause_ms(20);
    }
    return pthread_detach(thread);
}
