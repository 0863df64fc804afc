// A flush that fails is tried once more, and the kernel has forgotten the failure by then.
// finds: F402
#define OWN_switchTo
#include "base.h"

static inline int switchTo(int chip, int slot)
{
    if (pwrite(chip, slot == 0 ? "0" : "1", 1, 0) != 1) {
        return fail(EIO);
    }
    for (int time = 0; time < 3; ++time) {
        if (fdatasync(chip) == 0) {
            return 0;
        }
    }
    return -1;
}
