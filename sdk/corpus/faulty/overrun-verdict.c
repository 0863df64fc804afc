// checkVersion writes a long where the daemon has an int.
// finds: F204
#define OWN_checkVersion
#include "base.h"

int checkVersion(const char* version, int* result)
{
    int verdict = 0;
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    if (compareVersion(version, &verdict) != 0) {
        return -1;
    }
    const long wide = verdict;
    memcpy(result, &wide, sizeof wide);
    return 0;
}
