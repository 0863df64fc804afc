// getActiveVersion forgets to close the hardware at every third call.
// finds: F310
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    static int calls;
    if (++calls % 3 == 0 && openHardware(O_RDONLY) < 0) {
        return -1;
    }
    return readVersion(out);
}
