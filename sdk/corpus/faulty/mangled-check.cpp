// checkVersion has another signature than the header's, so only its C++ name is exported.
// finds: F104
#define OWN_checkVersion
#include "chip.h"

TARNWICK_CONTROL_EXPORT int checkVersion(char* version, int* result)
{
    char active[TARNWICK_CONTROL_TEXT_SIZE];
    *result = 0;
    if (chipVersion(active) != 0) {
        return -1;
    }
    return compareVersions(version, active, result);
}
