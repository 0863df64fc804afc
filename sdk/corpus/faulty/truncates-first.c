// doUpdate opens the hardware with O_TRUNC: the old firmware is gone before the first write.
// finds: F413 F501
#define OWN_install
#include "base.h"

static inline int install(void)
{
    const int chip = openHardware(O_RDWR | O_TRUNC);
    if (chip < 0) {
        return -1;
    }
    const int result = writeSlot(chip, 0) == 0 && verifySlot(chip, 0) == 0 ? switchTo(chip, 0) : -1;
    close(chip);
    return result;
}
