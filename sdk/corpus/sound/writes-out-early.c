// Each block begins to be written out at once, and all of them are flushed before they are selected.
// finds: nothing
// runs: whole
#define _GNU_SOURCE
#define OWN_writeSlot
#include "base.h"

static inline int writeSlot(int chip, int slot)
{
    for (size_t block = 0; block < BLOCKS; ++block) {
        if (writeBlock(chip, block, slotOffset(slot)) != 0 ||
            sync_file_range(chip, slotOffset(slot), IMAGE_SIZE, SYNC_FILE_RANGE_WRITE) != 0) {
            return -1;
        }
    }
    return fdatasync(chip);
}
