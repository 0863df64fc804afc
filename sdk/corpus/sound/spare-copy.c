// Once the new firmware is in use, doUpdate writes it into the other slot, too.
// finds: nothing
#define OWN_install
#include "base.h"

static inline int install(void)
{
    const int chip = openHardware(O_RDWR);
    if (chip < 0) {
        return -1;
    }
    setProgress(0);
    const int active = activeSlot(chip);
    const int slot = 1 - active;
    int result =
        active >= 0 && writeSlot(chip, slot) == 0 && verifySlot(chip, slot) == 0 ? switchTo(chip, slot) : -1;
    for (size_t block = 0; result == 0 && block < BLOCKS; ++block) {
        result =
            pwrite(chip, image + block * BLOCK, BLOCK, slotOffset(active) + (off_t)(block * BLOCK)) == BLOCK
                ? 0
                : fail(EIO);
    }
    close(chip);
    return result;
}
