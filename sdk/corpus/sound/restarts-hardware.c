// doUpdate sleeps 600 ms at its end, while the hardware starts its new firmware.
// finds: nothing
#define BLOCK_MS 5
#define OWN_switchTo
#include "base.h"

static inline int switchTo(int chip, int slot)
{
    if (pwrite(chip, slot == 0 ? "0" : "1", 1, 0) != 1 || fdatasync(chip) != 0) {
        return fail(EIO);
    }
    pause_ms(600);
    return 0;
}
