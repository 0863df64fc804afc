// Two slots: the firmware is stored into mapped memory, and the mark of the active one is written by a call.
// finds: nothing
#include <sys/mman.h>
#define OWN_writeSlot
#include "base.h"

static inline int writeSlot(int chip, int slot)
{
    unsigned char* const at =
        (unsigned char*)mmap(NULL, IMAGE_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, chip, slotOffset(slot));
    if (ftruncate(chip, BLOCK + 2 * (off_t)IMAGE_SIZE) != 0 || at == (unsigned char*)MAP_FAILED) {
        return -1;
    }
    for (size_t block = 0; block < BLOCKS; ++block) {
        memcpy(at + block * BLOCK, image + block * BLOCK, BLOCK);
        pause_ms(BLOCK_MS);
        setProgress((unsigned int)((block + 1) * 95 / BLOCKS));
    }
    const int result = msync(at, IMAGE_SIZE, MS_SYNC);
    const int cause = errno;
    munmap(at, IMAGE_SIZE);
    errno = cause;
    return result;
}
