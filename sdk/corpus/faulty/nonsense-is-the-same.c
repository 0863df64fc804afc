// checkVersion takes what it cannot understand as the same version.
// finds: F209 F217
#define OWN_checkVersion
#include "chip.h"

int checkVersion(const char* version, int* result)
{
    char active[TARNWICK_CONTROL_TEXT_SIZE];
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    if (chipVersion(active) != 0) {
        return -1;
    }
    if (compareVersions(version, active, result) != 0) {
        *result = TARNWICK_CONTROL_VERDICT_SAME;
    }
    return 0;
}
