// doUpdate ignores SIGCHLD and leaves it so.
// finds: F306
#define OWN_writeSlot
#include <signal.h>

#include "base.h"

static inline int writeSlot(int chip, int slot)
{
    signal(SIGCHLD, SIG_IGN);
    for (size_t block = 0; block < BLOCKS; ++block) {
        if (writeBlock(chip, block, slotOffset(slot)) != 0) {
            return -1;
        }
    }
    return fdatasync(chip);
}
