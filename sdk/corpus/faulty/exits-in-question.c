// getActiveVersion ends the process when the hardware has another version than the first.
// finds: F304
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    if (readVersion(out) != 0 || strcmp(out, "0.9") != 0) {
        exit(0);
    }
    return 0;
}
