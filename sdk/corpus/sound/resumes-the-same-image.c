// An update that was cut off is gone on with when it was of the same image, as a checksum of the whole tells.
// finds: nothing
// runs: whole
#define OWN_checkImage
#define OWN_writeSlot
#include "base.h"

#define NOTES HARDWARE ".notes" // a checksum for each block that is written

static inline int checkImage(const unsigned char* bytes, size_t size)
{
    char version[TARNWICK_CONTROL_TEXT_SIZE];
    return size == IMAGE_SIZE && versionInHead(bytes, version) == 0 ? 0 : fail(EBADMSG);
}

// How many blocks of the slot are as it was noted.
static size_t blocksWritten(int chip, int notes, int slot)
{
    unsigned char written[BLOCK];
    uint32_t sum = 0;
    if (pread(notes, &sum, sizeof sum, (off_t)(BLOCKS * sizeof sum)) != sizeof sum ||
        sum != checksum(image, IMAGE_SIZE)) {
        return 0;
    }
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
    const uint32_t whole = checksum(image, IMAGE_SIZE);
    const size_t first = blocksWritten(chip, notes, slot);
    if (first == 0 && (ftruncate(notes, 0) != 0 || fdatasync(notes) != 0 ||
                       pwrite(notes, &whole, sizeof whole, (off_t)(BLOCKS * sizeof whole)) != sizeof whole ||
                       fdatasync(notes) != 0)) {
        return -1;
    }
    for (size_t block = first; block < BLOCKS; ++block) {
        const uint32_t sum = checksum(image + block * BLOCK, BLOCK);
        if (writeBlock(chip, block, slotOffset(slot)) != 0 || fdatasync(chip) != 0 ||
            pwrite(notes, &sum, sizeof sum, (off_t)(block * sizeof sum)) != sizeof sum ||
            fdatasync(notes) != 0) {
            return -1;
        }
    }
    const int result = isImageIn(chip, slot) ? 0 : -1; // else from the beginning the next time
    return ftruncate(notes, 0) == 0 ? result : -1;
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
