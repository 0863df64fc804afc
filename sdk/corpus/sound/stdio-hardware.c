// The hardware is written through a buffered FILE, which is flushed before the switch.
// finds: nothing
#define OWN_install
#include "base.h"

static int writeThrough(FILE* chip, int slot)
{
    if (fseek(chip, (long)slotOffset(slot), SEEK_SET) != 0) {
        return -1;
    }
    for (size_t block = 0; block < BLOCKS; ++block) {
        if (fwrite(image + block * BLOCK, 1, BLOCK, chip) != BLOCK) {
            return -1;
        }
        pause_ms(BLOCK_MS);
        setProgress((unsigned int)((block + 1) * 95 / BLOCKS));
    }
    return fflush(chip) == 0 ? fdatasync(fileno(chip)) : -1;
}

static inline int install(void)
{
    FILE* const chip = fopen(HARDWARE, "r+e");
    if (chip == NULL) {
        return -1;
    }
    const int slot = 1 - activeSlot(fileno(chip));
    const int result = slot <= 1 && writeThrough(chip, slot) == 0 && verifySlot(fileno(chip), slot) == 0
                           ? switchTo(fileno(chip), slot)
                           : -1;
    fclose(chip);
    return result;
}
