// The flush of the selector, in the file that the firmware is in as well, is not looked at.
// finds: F402
#define OWN_switchTo
#include "base.h"

static inline int switchTo(int chip, int slot)
{
    if (pwrite(chip, slot == 0 ? "0" : "1", 1, 0) != 1) {
        return fail(EIO);
    }
    fdatasync(chip);
    return 0;
}
