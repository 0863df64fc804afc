// The first block, which has the version, is not read back.
// finds: F424
#define OWN_verifySlot
#include "base.h"

static inline int verifySlot(int chip, int slot)
{
    unsigned char written[BLOCK];
    for (size_t block = 1; block < BLOCKS; ++block) {
        if (pread(chip, written, BLOCK, slotOffset(slot) + (off_t)(block * BLOCK)) != BLOCK ||
            memcmp(written, image + block * BLOCK, BLOCK) != 0) {
            return fail(EIO);
        }
    }
    return 0;
}
