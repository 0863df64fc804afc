// The new slot is written out with sync_file_range, which waits for it, before it is selected.
// finds: F423
#define _GNU_SOURCE
#define OWN_writeSlot
#include "base.h"

static inline int writeSlot(int chip, int slot)
{
    for (size_t block = 0; block < BLOCKS; ++block) {
        if (writeBlock(chip, block, slotOffset(slot)) != 0) {
            return -1;
        }
    }
    return sync_file_range(chip, slotOffset(slot), IMAGE_SIZE,
                           SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER);
}
