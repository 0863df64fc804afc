// doUpdate runs a command by system(), which changes two signals of the whole process while the command runs.
// finds: F306
#define OWN_verifySlot
#include "base.h"

static inline int verifySlot(int chip, int slot)
{
    return system("true") == 0 && isImageIn(chip, slot) ? 0 : fail(EIO);
}
