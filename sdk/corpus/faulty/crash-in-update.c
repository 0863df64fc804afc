// doUpdate looks at the block after the last one, through a pointer that is null then.
// finds: F302
#define OWN_verifySlot
#include "base.h"

static inline int verifySlot(int chip, int slot)
{
    const unsigned char* volatile next = image;
    for (size_t block = 0; block <= BLOCKS; ++block) {
        if (*next != image[block * BLOCK]) {
            return fail(EIO);
        }
        next = block + 1 < BLOCKS ? image + (block + 1) * BLOCK : NULL;
    }
    return chip < 0 || slot < 0 ? -1 : 0;
}
