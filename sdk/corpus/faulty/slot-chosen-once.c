// A second update of a process writes the slot of the first one, which has been chosen for good.
// finds: F413
#define OWN_install
#include "base.h"

static int chosen = -1;

static inline int install(void)
{
    const int chip = openHardware(O_RDWR);
    if (chip < 0) {
        return -1;
    }
    setProgress(0);
    const int active = activeSlot(chip);
    if (chosen < 0 && active >= 0) {
        chosen = 1 - active;
    }
    const int result = active >= 0 && writeSlot(chip, chosen) == 0 && verifySlot(chip, chosen) == 0
                           ? switchTo(chip, chosen)
                           : -1;
    close(chip);
    if (result == 0) {
        setProgress(100);
    }
    return result;
}
