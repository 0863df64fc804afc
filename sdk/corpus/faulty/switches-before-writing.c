// doUpdate writes the new version's head and switches over before the rest of the firmware is there.
// finds: F402 F413 F423 F503
#define OWN_install
#include "base.h"

static inline int install(void)
{
    const int chip = openHardware(O_RDWR);
    if (chip < 0) {
        return -1;
    }
    const int slot = 1 - activeSlot(chip);
    int result = writeBlock(chip, 0, slotOffset(slot)) == 0 ? switchTo(chip, slot) : -1;
    if (result == 0 && writeSlot(chip, slot) == 0) {
        result = verifySlot(chip, slot);
    }
    close(chip);
    return result;
}
