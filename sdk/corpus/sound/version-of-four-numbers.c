// getActiveVersion tells four numbers, of which an image's version has the first two.
// finds: nothing
// runs: whole
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    char version[TARNWICK_CONTROL_TEXT_SIZE] = "";
    const int result = readVersion(version);
    snprintf(out, TARNWICK_CONTROL_TEXT_SIZE, "%.100s.0.0", version);
    return result;
}
