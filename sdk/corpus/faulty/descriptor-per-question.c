// getActiveVersion forgets to close the hardware.
// finds: F310
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    return openHardware(O_RDONLY) < 0 ? -1 : readVersion(out);
}
