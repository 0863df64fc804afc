// The last block is not read back; another wrong one leaves errno 0, any failure the hardware mapped.
// finds: F310 F412 F424
#include <sys/mman.h>
#define OWN_install
#define OWN_verifySlot
#include "base.h"

static inline int verifySlot(int chip, int slot)
{
    unsigned char written[BLOCK];
    for (size_t block = 0; block + 1 < BLOCKS; ++block) {
        if (pread(chip, written, BLOCK, slotOffset(slot) + (off_t)(block * BLOCK)) != BLOCK ||
            memcmp(written, image + block * BLOCK, BLOCK) != 0) {
            errno = 0;
            return -1;
        }
    }
    return 0;
}

static inline int install(void)
{
    const int chip = openHardware(O_RDWR);
    void* const head = chip < 0 ? MAP_FAILED : mmap(NULL, BLOCK, PROT_READ, MAP_SHARED, chip, 0);
    if (head == MAP_FAILED) {
        return -1;
    }
    setProgress(0);
    const int slot = *(const char*)head == '0' ? 1 : 0;
    const int result = writeSlot(chip, slot) == 0 && verifySlot(chip, slot) == 0 ? switchTo(chip, slot) : -1;
    close(chip);
    if (result != 0) {
        return -1;
    }
    munmap(head, BLOCK);
    setProgress(100);
    return 0;
}
