// doUpdate starts a program through a shell that ends at once, so the program is nobody's child.
// finds: F311
#define OWN_verifySlot
#include "base.h"

static inline int verifySlot(int chip, int slot)
{
    return system("sleep 1000 >/dev/null 2>&1 &") == 0 && isImageIn(chip, slot) ? 0 : fail(EIO);
}
