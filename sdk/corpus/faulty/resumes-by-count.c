// A file counts the blocks that are written, for a next update of whatever image.
// finds: F502
#define OWN_writeSlot
#define OWN_verifySlot
#include "base.h"

#define COUNT "/var/lib/hardware/corpus.count"

static unsigned char blocksDone(void)
{
    unsigned char count = 0;
    const int file = open(COUNT, O_RDONLY | O_CLOEXEC);
    if (file >= 0) {
        if (read(file, &count, 1) != 1) {
            count = 0;
        }
        close(file);
    }
    return count;
}

static int noteBlocks(unsigned char count)
{
    const int file = open(COUNT, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (file < 0) {
        return -1;
    }
    const int result = pwrite(file, &count, 1, 0) == 1 ? fsync(file) : fail(EIO);
    close(file);
    return result == 0 ? flushDirectory() : -1;
}

static inline int writeSlot(int chip, int slot)
{
    for (size_t block = blocksDone(); block < BLOCKS; ++block) {
        if (writeBlock(chip, block, slotOffset(slot)) != 0 || fdatasync(chip) != 0 ||
            noteBlocks((unsigned char)(block + 1)) != 0) {
            return -1;
        }
    }
    return 0;
}

static inline int verifySlot(int chip, int slot)
{
    return isImageIn(chip, slot) ? noteBlocks(0) : -1;
}
