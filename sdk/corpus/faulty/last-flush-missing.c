// The write that switches over to the new firmware is not flushed.
// finds: F425
#define OWN_switchTo
#include "base.h"

static inline int switchTo(int chip, int slot)
{
    return pwrite(chip, slot == 0 ? "0" : "1", 1, 0) == 1 ? 0 : fail(EIO);
}
