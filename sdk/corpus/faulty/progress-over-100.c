// The progress counts hundreds of bytes.
// finds: F406
#define OWN_writeBlock
#include "base.h"

static inline int writeBlock(int chip, size_t block, off_t at)
{
    if (pwrite(chip, image + block * BLOCK, BLOCK, at + (off_t)(block * BLOCK)) != BLOCK) {
        return fail(EIO);
    }
    pause_ms(BLOCK_MS);
    setProgress((unsigned int)((block + 1) * BLOCK / 100));
    return 0;
}
