// The progress is 100 when everything is written; the verification after it takes 400 ms more.
// finds: nothing
#define OWN_switchTo
#include "base.h"

static inline int switchTo(int chip, int slot)
{
    setProgress(100);
    pause_ms(400);
    return pwrite(chip, slot == 0 ? "0" : "1", 1, 0) == 1 ? fdatasync(chip) : fail(EIO);
}
