// The write that switches over comes before the flush of what it switches to.
// finds: F217 F402 F423
//
// Its failure is not looked at, either, and the numbers of a version are kept in a byte each.
#define OWN_writeSlot
#define OWN_switchTo
#define OWN_compareVersion
#include "base.h"

static inline int writeSlot(int chip, int slot)
{
    for (size_t block = 0; block < BLOCKS; ++block) {
        if (writeBlock(chip, block, slotOffset(slot)) != 0) {
            return -1;
        }
    }
    return 0;
}

static inline int switchTo(int chip, int slot)
{
    if (pwrite(chip, slot == 0 ? "0" : "1", 1, 0) != 1) {
        errno = 0;
    }
    return fdatasync(chip);
}

static inline int compareVersion(const char* offered, int* verdict)
{
    char installed[TARNWICK_CONTROL_TEXT_SIZE] = "";
    unsigned int theirs = 0;
    unsigned int ours = 0;
    if (readVersion(installed) != 0 || parseVersion(installed, &ours) != 0 ||
        parseVersion(offered, &theirs) != 0) {
        return -1;
    }
    theirs = theirs / 10000 * 10000 + (unsigned char)(theirs % 10000);
    *verdict = (theirs > ours) - (theirs < ours);
    return 0;
}
