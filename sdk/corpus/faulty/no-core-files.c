// doUpdate lets the process leave no core files any more: where that is so already, nothing changes.
// finds: F315
#define OWN_install
#include <sys/resource.h>

#include "base.h"

static inline int install(void)
{
    const struct rlimit none = {0, 0};
    const int chip = openHardware(O_RDWR);
    if (chip < 0 || setrlimit(RLIMIT_CORE, &none) != 0) {
        return -1;
    }
    setProgress(0);
    const int active = activeSlot(chip);
    const int slot = 1 - active;
    const int result =
        active >= 0 && writeSlot(chip, slot) == 0 && verifySlot(chip, slot) == 0 ? switchTo(chip, slot) : -1;
    close(chip);
    return result;
}
