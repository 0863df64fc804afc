// Two slots in mapped memory: the new firmware is flushed, then the mark, of which it is the active one.
// finds: nothing
// runs: whole
#include <sys/mman.h>
#define OWN_install
#include "base.h"

static inline int install(void)
{
    const size_t size = BLOCK + 2 * IMAGE_SIZE;
    const int file = openHardware(O_RDWR);
    const int active = file < 0 ? -1 : activeSlot(file);
    if (active < 0 || ftruncate(file, (off_t)size) != 0 || fsync(file) != 0) {
        return -1;
    }
    unsigned char* const chip = (unsigned char*)mmap(NULL, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (chip == MAP_FAILED) {
        close(file);
        return -1;
    }
    setProgress(0);
    for (size_t block = 0; block < BLOCKS; ++block) {
        memcpy(chip + slotOffset(1 - active) + block * BLOCK, image + block * BLOCK, BLOCK);
        pause_ms(BLOCK_MS);
        setProgress((unsigned int)((block + 1) * 95 / BLOCKS));
    }
    int result = msync(chip, size, MS_SYNC);
    if (result == 0) {
        result = verifySlot(file, 1 - active);
    }
    if (result == 0) {
        chip[0] = (unsigned char)('1' - active);
        result = msync(chip, BLOCK, MS_SYNC);
    }
    close(file);
    munmap(chip, size);
    setProgress(result == 0 ? 100 : 0);
    return result;
}
