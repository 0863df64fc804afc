// allUpdateDone closes the hardware, also under an update that writes it.
// finds: F420
#define OWN_install
#define OWN_allUpdateDone
#include "base.h"

static int chip = -1;

static inline int install(void)
{
    chip = openHardware(O_RDWR);
    if (chip < 0) {
        return -1;
    }
    setProgress(0);
    const int slot = 1 - activeSlot(chip);
    const int result = writeSlot(chip, slot) == 0 && verifySlot(chip, slot) == 0 ? switchTo(chip, slot) : -1;
    if (chip >= 0) {
        close(chip);
    }
    chip = -1;
    if (result == 0) {
        setProgress(100);
    }
    return result;
}

int allUpdateDone(void)
{
    if (chip >= 0) {
        close(chip);
    }
    chip = -1;
    return 0;
}
