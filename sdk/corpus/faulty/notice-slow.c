// allUpdateDone waits for a restart of the hardware.
// finds: F416
#define OWN_allUpdateDone
#include "base.h"

int allUpdateDone(void)
{
    pause_ms(1500);
    return 0;
}
