// A new hardware is made beside the old one with O_EXCL: left there, it stops the next update.
// finds: F418 F502
#define OWN_install
#include "base.h"

#define NEW HARDWARE ".new"

static inline int install(void)
{
    const int chip = open(NEW, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (chip < 0) {
        return -1;
    }
    const int result = writeSlot(chip, 0) == 0 && verifySlot(chip, 0) == 0 ? switchTo(chip, 0) : -1;
    close(chip);
    return result == 0 && rename(NEW, HARDWARE) == 0 ? flushDirectory() : -1;
}
