// doUpdate goes to the hardware's directory and stays there.
// finds: F305
#define OWN_openHardware
#include "base.h"

static inline int openHardware(int flags)
{
    if ((flags & O_ACCMODE) == O_RDWR && chdir("/var/lib/hardware") != 0) {
        return -1;
    }
    return open(HARDWARE, flags | O_CLOEXEC);
}
