// doUpdate sets the file mode mask, so that everybody may read its log.
// finds: F312
#define OWN_writeSlot
#include <sys/stat.h>

#include "base.h"

static inline int writeSlot(int chip, int slot)
{
    umask(0);
    for (size_t block = 0; block < BLOCKS; ++block) {
        if (writeBlock(chip, block, slotOffset(slot)) != 0) {
            return -1;
        }
    }
    return fdatasync(chip);
}
