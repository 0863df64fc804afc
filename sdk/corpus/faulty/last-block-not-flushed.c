// The block that switches over is not flushed. When a write fails, the hardware stays open.
// finds: F310 F425
#define OWN_install
#define OWN_switchTo
#include "base.h"

static inline int switchTo(int chip, int slot)
{
    unsigned char block[BLOCK];
    if (pread(chip, block, sizeof block, 0) != BLOCK) {
        return fail(EIO);
    }
    block[0] = (unsigned char)('0' + slot);
    return pwrite(chip, block, sizeof block, 0) == BLOCK ? 0 : fail(EIO);
}

static inline int install(void)
{
    const int chip = openHardware(O_RDWR);
    if (chip < 0) {
        return -1;
    }
    setProgress(0);
    const int active = activeSlot(chip);
    const int slot = 1 - active;
    if (active < 0 || writeSlot(chip, slot) != 0 || verifySlot(chip, slot) != 0 ||
        switchTo(chip, slot) != 0) {
        return -1;
    }
    close(chip);
    setProgress(100);
    return 0;
}
