// The questions read the head of the running firmware into the buffer that an update is written from.
// finds: F426
#define OWN_readVersion
#include "base.h"

static inline int readVersion(char* out)
{
    const int chip = openHardware(O_RDONLY);
    if (chip < 0) {
        return -1;
    }
    const int slot = activeSlot(chip);
    const ssize_t size = slot < 0 ? -1 : pread(chip, image, HEAD_SIZE, slotOffset(slot));
    close(chip);
    return size < (ssize_t)HEAD_SIZE ? fail(EIO) : versionInHead(image, out);
}
