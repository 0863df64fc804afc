// doUpdate makes the new firmware the active one when the notice has come that the pass is over.
// finds: F401 F420
#define OWN_switchTo
#define OWN_allUpdateDone
#include "base.h"

static int isOver; // atomic

static inline int switchTo(int chip, int slot)
{
    for (int tries = 0; !__atomic_exchange_n(&isOver, 0, __ATOMIC_SEQ_CST); ++tries) {
        if (tries == 50) {
            return fail(ETIMEDOUT);
        }
        pause_ms(10);
    }
    if (pwrite(chip, slot == 0 ? "0" : "1", 1, 0) != 1) {
        return fail(EIO);
    }
    return fdatasync(chip);
}

int allUpdateDone(void)
{
    __atomic_store_n(&isOver, 1, __ATOMIC_SEQ_CST);
    return 0;
}
