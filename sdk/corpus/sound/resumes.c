// Blocks that are there already are not written again: a cut-off update goes on.
// finds: nothing
#define OWN_writeSlot
#include "base.h"

static inline int writeSlot(int chip, int slot)
{
    unsigned char there[BLOCK];
    for (size_t block = 0; block < BLOCKS; ++block) {
        const off_t at = slotOffset(slot) + (off_t)(block * BLOCK);
        const int isThere =
            pread(chip, there, BLOCK, at) == BLOCK && memcmp(there, image + block * BLOCK, BLOCK) == 0;
        if (!isThere && writeBlock(chip, block, slotOffset(slot)) != 0) {
            return -1;
        }
    }
    return fdatasync(chip);
}
