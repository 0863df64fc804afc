// doUpdate allows the process no more open files than it needs itself.
// finds: F315
#define OWN_writeSlot
#include <sys/resource.h>

#include "base.h"

static inline int writeSlot(int chip, int slot)
{
    struct rlimit files;
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = 16;
    setrlimit(RLIMIT_NOFILE, &files);
    for (size_t block = 0; block < BLOCKS; ++block) {
        if (writeBlock(chip, block, slotOffset(slot)) != 0) {
            return -1;
        }
    }
    return fdatasync(chip);
}
