// doUpdate erases the head of the running firmware and writes it last: in between there is no version.
// finds: F413 F423 F424 F501
#define OWN_install
#include "base.h"

static inline int install(void)
{
    static const unsigned char empty[BLOCK];
    const int chip = openHardware(O_RDWR);
    if (chip < 0) {
        return -1;
    }
    const off_t at = slotOffset(activeSlot(chip));
    int result = pwrite(chip, empty, BLOCK, at) == BLOCK ? 0 : fail(EIO);
    for (size_t block = 1; result == 0 && block < BLOCKS; ++block) {
        result = writeBlock(chip, block, at);
    }
    if (result == 0 && pwrite(chip, image, BLOCK, at) != BLOCK) {
        result = fail(EIO);
    }
    close(chip);
    return result;
}
