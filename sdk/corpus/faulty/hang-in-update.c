// doUpdate waits without a limit for a hardware that is ready.
// finds: F301
#define OWN_switchTo
#include "base.h"

static inline int switchTo(int chip, int slot)
{
    (void)chip, (void)slot;
    while (access("/dev/corpus-ready", F_OK) != 0) {
        pause_ms(10);
    }
    return 0;
}
