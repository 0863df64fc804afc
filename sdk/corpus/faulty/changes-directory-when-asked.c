// getActiveVersion goes to the root directory.
// finds: F305
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    return chdir("/") == 0 && chdir("/var/lib/hardware") == 0 ? readVersion(out) : -1;
}
