// doUpdate asks for the free slot once, and writes the running one at the second time.
// finds: F418 F419
#define OWN_install
#include "base.h"

static int freeSlot = -1;

static inline int install(void)
{
    const int chip = openHardware(O_RDWR);
    if (chip < 0) {
        return -1;
    }
    setProgress(0);
    if (freeSlot < 0) {
        freeSlot = 1 - activeSlot(chip);
    }
    const int slot = freeSlot;
    freeSlot = 2; // there is none any more
    const int result = slot < 2 && writeSlot(chip, slot) == 0 && verifySlot(chip, slot) == 0
                           ? switchTo(chip, slot)
                           : fail(ENOSPC);
    close(chip);
    return result;
}
