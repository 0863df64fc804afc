// The progress starts again with the verification.
// finds: F405
#define OWN_verifySlot
#include "base.h"

static inline int verifySlot(int chip, int slot)
{
    unsigned char written[BLOCK];
    for (size_t block = 0; block < BLOCKS; ++block) {
        const size_t at = block * BLOCK;
        if (pread(chip, written, BLOCK, slotOffset(slot) + (off_t)at) != BLOCK ||
            memcmp(written, image + at, BLOCK) != 0) {
            return fail(EIO);
        }
        setProgress((unsigned int)((block + 1) * 95 / BLOCKS));
        pause_ms(BLOCK_MS);
    }
    return 0;
}
