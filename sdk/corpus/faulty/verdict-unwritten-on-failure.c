// checkVersion writes nothing when it fails.
// finds: F219
#define OWN_checkVersion
#include "chip.h"

int checkVersion(const char* version, int* result)
{
    char active[TARNWICK_CONTROL_TEXT_SIZE];
    unsigned long v[4];
    if (parseVersion(version, v) != 0) {
        return -1;
    }
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    if (chipVersion(active) != 0) {
        return -1;
    }
    return compareVersions(version, active, result);
}
