// The hardware is opened at the first question, and stays open for good.
// finds: nothing
#define OWN_openHardware
#define OWN_readVersion
#define OWN_install
#include "base.h"

static inline int openHardware(int flags)
{
    static int chip = -1; // guarded by opening
    static pthread_mutex_t opening = PTHREAD_MUTEX_INITIALIZER;
    (void)flags;
    pthread_mutex_lock(&opening);
    if (chip < 0) {
        chip = open(HARDWARE, O_RDWR | O_CLOEXEC);
    }
    pthread_mutex_unlock(&opening);
    return chip;
}

static inline int readVersion(char* out)
{
    unsigned char head[HEAD_SIZE] = "";
    const int chip = openHardware(O_RDWR);
    const int slot = chip < 0 ? -1 : activeSlot(chip);
    if (slot < 0 || pread(chip, head, sizeof head, slotOffset(slot)) < 0) {
        return -1;
    }
    return versionInHead(head, out);
}

static inline int install(void)
{
    const int chip = openHardware(O_RDWR);
    const int active = chip < 0 ? -1 : activeSlot(chip);
    if (active < 0) {
        return -1;
    }
    setProgress(0);
    if (writeSlot(chip, 1 - active) != 0 || verifySlot(chip, 1 - active) != 0 ||
        switchTo(chip, 1 - active) != 0) {
        return -1;
    }
    setProgress(100);
    return 0;
}
