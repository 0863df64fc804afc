// getActiveVersion takes its buffer for one of 256 bytes.
// finds: F204
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    char version[256] = "";
    const int result = readVersion(version);
    memcpy(out, version, sizeof version);
    return result;
}
