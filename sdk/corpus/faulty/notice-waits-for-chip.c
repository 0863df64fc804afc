// allUpdateDone waits for the chip after an update.
// finds: F416
#define OWN_allUpdateDone
#include "chip.h"

int allUpdateDone(void)
{
    if (progressNow == 100) {
        sleep(3);
    }
    return 0;
}
