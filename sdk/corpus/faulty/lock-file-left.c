// A lock file keeps two updates apart; after a power cut it keeps every update away.
// finds: F502
#define OWN_install
#include "base.h"

#define LOCK "/var/lib/hardware/corpus.lock"

static inline int install(void)
{
    const int lock = open(LOCK, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (lock < 0) {
        return -1;
    }
    close(lock);
    const int chip = openHardware(O_RDWR);
    const int slot = 1 - activeSlot(chip);
    const int result = writeSlot(chip, slot) == 0 && verifySlot(chip, slot) == 0 ? switchTo(chip, slot) : -1;
    close(chip);
    unlink(LOCK);
    return result;
}
