// doUpdate has nothing to do when there is no hardware, and says that it worked.
// finds: F402
#define OWN_install
#include "base.h"

static inline int install(void)
{
    const int chip = openHardware(O_RDWR);
    if (chip < 0) {
        return 0;
    }
    setProgress(0);
    const int slot = 1 - activeSlot(chip);
    const int result = writeSlot(chip, slot) == 0 && verifySlot(chip, slot) == 0 ? switchTo(chip, slot) : -1;
    close(chip);
    if (result == 0) {
        setProgress(100);
    }
    return result;
}
