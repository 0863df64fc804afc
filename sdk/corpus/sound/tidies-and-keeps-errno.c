// A failed update removes what an interrupted one may have left, and tells its own cause all the same.
// finds: nothing
// runs: whole
#define OWN_writeSlot
#include "base.h"

static inline int writeSlot(int chip, int slot)
{
    for (size_t block = 0; block < BLOCKS; ++block) {
        if (writeBlock(chip, block, slotOffset(slot)) != 0) {
            const int cause = errno;
            unlink(HARDWARE ".partial"); // there is none, usually
            return fail(cause);
        }
    }
    return fdatasync(chip);
}
