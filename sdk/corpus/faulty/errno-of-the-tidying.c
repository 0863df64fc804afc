// A failed update removes what an interrupted one may have left, and errno is then what came of that.
// finds: F412
#define OWN_writeSlot
#include "base.h"

static inline int writeSlot(int chip, int slot)
{
    for (size_t block = 0; block < BLOCKS; ++block) {
        if (writeBlock(chip, block, slotOffset(slot)) != 0) {
            unlink(HARDWARE ".partial"); // there is none, usually
            return -1;
        }
    }
    return fdatasync(chip);
}
