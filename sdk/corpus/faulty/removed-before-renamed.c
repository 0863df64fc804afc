// The old hardware is removed before the new one, written beside it, takes its place.
// finds: F413 F501
#define OWN_install
#include "base.h"

#define NEW HARDWARE ".new"

static inline int install(void)
{
    const int chip = open(NEW, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (chip < 0) {
        return -1;
    }
    setProgress(0);
    const int result = writeSlot(chip, 0) == 0 && verifySlot(chip, 0) == 0 ? switchTo(chip, 0) : -1;
    close(chip);
    if (result != 0 || unlink(HARDWARE) != 0) {
        return -1;
    }
    return rename(NEW, HARDWARE) == 0 ? flushDirectory() : -1;
}
