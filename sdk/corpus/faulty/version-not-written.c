// The update brings everything but the head of the image, where the version is.
// finds: F409
#define OWN_verifySlot
#include "base.h"

static inline int verifySlot(int chip, int slot)
{
    char head[] = "corpus 1.0\n";
    return pwrite(chip, head, strlen(head), slotOffset(slot)) == (ssize_t)strlen(head) ? 0 : fail(EIO);
}
