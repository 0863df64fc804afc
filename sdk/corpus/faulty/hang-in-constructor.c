// Loading waits for hardware that does not come.
// finds: F301
#include "base.h"

__attribute__((constructor)) static void waitForHardware(void)
{
    while (access("/dev/corpus", F_OK) != 0) {
        pause_ms(50);
    }
}
