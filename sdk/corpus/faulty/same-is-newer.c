// checkVersion takes the same version as newer.
// finds: F207
#define OWN_checkVersion
#include "base.h"

int checkVersion(const char* version, int* result)
{
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    if (compareVersion(version, result) != 0) {
        return -1;
    }
    if (*result == TARNWICK_CONTROL_VERDICT_SAME) {
        *result = TARNWICK_CONTROL_VERDICT_NEWER;
    }
    return 0;
}
