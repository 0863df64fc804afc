// doUpdate overwrites the running firmware from its head on, where the version is.
// finds: F413 F423 F503
#define OWN_install
#include "base.h"

static inline int install(void)
{
    const int chip = openHardware(O_RDWR);
    if (chip < 0) {
        return -1;
    }
    const int slot = activeSlot(chip);
    const int result = writeSlot(chip, slot) == 0 ? verifySlot(chip, slot) : -1;
    close(chip);
    return result;
}
