// For a library on base.h with OWN_writeSlot: an update that was cut off is gone on with where its notes end,
// a checksum for each block that is written.
#ifndef CORPUS_NOTES_H
#define CORPUS_NOTES_H

#include "base.h"

#define NOTES HARDWARE ".notes" // a checksum for each block that is written

// How many blocks of the slot are as it was noted.
static size_t blocksWritten(int chip, int notes, int slot)
{
    unsigned char written[BLOCK];
    uint32_t sum = 0;
    for (size_t block = 0; block < BLOCKS; ++block) {
        if (pread(notes, &sum, sizeof sum, (off_t)(block * sizeof sum)) != sizeof sum ||
            pread(chip, written, BLOCK, slotOffset(slot) + (off_t)(block * BLOCK)) != BLOCK ||
            checksum(written, BLOCK) != sum) {
            return block;
        }
    }
    return BLOCKS;
}

static int writeOn(int chip, int notes, int slot)
{
    for (size_t block = blocksWritten(chip, notes, slot); block < BLOCKS; ++block) {
        const uint32_t sum = checksum(image + block * BLOCK, BLOCK);
        if (writeBlock(chip, block, slotOffset(slot)) != 0 || fdatasync(chip) != 0 ||
            pwrite(notes, &sum, sizeof sum, (off_t)(block * sizeof sum)) != sizeof sum ||
            fdatasync(notes) != 0) {
            return -1;
        }
    }
    return isImageIn(chip, slot) ? ftruncate(notes, 0) : -1;
}

static inline int writeSlot(int chip, int slot)
{
    const int notes = open(NOTES, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (notes < 0) {
        return -1;
    }
    const int result = writeOn(chip, notes, slot);
    const int cause = errno;
    close(notes);
    errno = cause;
    return result;
}

#endif
