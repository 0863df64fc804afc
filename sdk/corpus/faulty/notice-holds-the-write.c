// allUpdateDone holds the write until it comes again, which it does not when the set is switched off.
// finds: F301 F420
#define OWN_writeBlock
#define OWN_allUpdateDone
#include "base.h"

static int isHeld; // atomic

static inline int writeBlock(int chip, size_t block, off_t at)
{
    while (__atomic_load_n(&isHeld, __ATOMIC_SEQ_CST) % 2 != 0 && block > 0) {
        pause_ms(5);
    }
    if (block == 0) {
        __atomic_store_n(&isHeld, 0, __ATOMIC_SEQ_CST);
    }
    if (pwrite(chip, image + block * BLOCK, BLOCK, at + (off_t)(block * BLOCK)) != BLOCK) {
        return fail(EIO);
    }
    pause_ms(BLOCK_MS);
    setProgress((unsigned int)((block + 1) * 95 / BLOCKS));
    return 0;
}

int allUpdateDone(void)
{
    __atomic_add_fetch(&isHeld, 1, __ATOMIC_SEQ_CST);
    return 0;
}
