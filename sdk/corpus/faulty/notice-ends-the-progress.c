// allUpdateDone takes the progress to its end, where it stays while the write goes on.
// finds: F405 F417
#define OWN_getUpdateProgress
#define OWN_allUpdateDone
#define OWN_install
#include "base.h"

static int isOver; // atomic

static inline int install(void)
{
    const int chip = openHardware(O_RDWR);
    if (chip < 0) {
        return -1;
    }
    __atomic_store_n(&isOver, 0, __ATOMIC_SEQ_CST);
    setProgress(0);
    const int slot = 1 - activeSlot(chip);
    const int result =
        slot < 2 && writeSlot(chip, slot) == 0 && verifySlot(chip, slot) == 0 ? switchTo(chip, slot) : -1;
    const int cause = errno;
    close(chip);
    errno = cause;
    return result;
}

int getUpdateProgress(unsigned int* out)
{
    *out = __atomic_load_n(&isOver, __ATOMIC_SEQ_CST) ? 100 : __atomic_load_n(&progress, __ATOMIC_SEQ_CST);
    return 0;
}

int allUpdateDone(void)
{
    __atomic_store_n(&isOver, 1, __ATOMIC_SEQ_CST);
    return 0;
}
