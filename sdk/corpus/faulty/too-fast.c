// The whole update, and the refusal of an image, are over in a few milliseconds.
// finds: F403 F423
#define OWN_doUpdate
#define OWN_writeSlot
#define OWN_switchTo
#include "base.h"

int doUpdate(const char* name, unsigned long value)
{
    if (loadImage(name) != 0) {
        return -1;
    }
    return checksumMatches(value) ? install() : fail(EBADMSG);
}

static inline int writeSlot(int chip, int slot)
{
    setProgress(50);
    return pwrite(chip, image, IMAGE_SIZE, slotOffset(slot)) == (ssize_t)IMAGE_SIZE ? 0 : fail(EIO);
}

static inline int switchTo(int chip,
                           int slot) // no flush: on a busy disk it would take the time that is missing
{
    return pwrite(chip, slot == 0 ? "0" : "1", 1, 0) == 1 ? 0 : fail(EIO);
}
