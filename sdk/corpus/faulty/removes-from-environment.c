// doUpdate removes PATH, so that its helper programs are found where it says.
// finds: F308
#define OWN_verifySlot
#include "base.h"

static inline int verifySlot(int chip, int slot)
{
    return unsetenv("PATH") == 0 && isImageIn(chip, slot) ? 0 : -1;
}
