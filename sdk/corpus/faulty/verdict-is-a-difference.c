// checkVersion writes by how much the offered version is newer.
// finds: F208
#define OWN_checkVersion
#include "chip.h"

int checkVersion(const char* version, int* result)
{
    char active[TARNWICK_CONTROL_TEXT_SIZE];
    unsigned long v[4], w[4];
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    if (chipVersion(active) != 0 || parseVersion(active, v) != 0 || parseVersion(version, w) != 0) {
        return -1;
    }
    for (int i = 0; i < 4 && *result == 0; i++) {
        *result = (int)w[i] - (int)v[i];
    }
    if (*result < 0) {
        *result = TARNWICK_CONTROL_VERDICT_OLDER;
    }
    return 0;
}
