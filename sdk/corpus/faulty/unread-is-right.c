// Reading back ends at the first block that cannot be read, and takes that for the end.
// finds: F424
#define OWN_verifySlot
#include "base.h"

static inline int verifySlot(int chip, int slot)
{
    unsigned char written[BLOCK];
    for (size_t block = 0; block < BLOCKS; ++block) {
        const size_t at = block * BLOCK;
        if (pread(chip, written, BLOCK, slotOffset(slot) + (off_t)at) <= 0) {
            break;
        }
        if (memcmp(written, image + at, BLOCK) != 0) {
            return fail(EIO);
        }
    }
    return 0;
}
