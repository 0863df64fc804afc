// doUpdate ends the process at once, with a status that looks like success.
// finds: F304
#define OWN_verifySlot
#include "base.h"

static inline int verifySlot(int chip, int slot)
{
    (void)chip, (void)slot;
    _exit(0);
}
