// getActiveVersion fills the whole buffer and has no room for the terminator.
// finds: F203
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    char version[TARNWICK_CONTROL_TEXT_SIZE];
    const int result = readVersion(version);
    memset(out, ' ', TARNWICK_CONTROL_TEXT_SIZE);
    memcpy(out, version, strlen(version));
    return result;
}
