// checkVersion copies the offered version into 64 bytes.
// finds: F302
#define OWN_checkVersion
#include "chip.h"

int checkVersion(const char* version, int* result)
{
    char active[TARNWICK_CONTROL_TEXT_SIZE], offered[64];
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    strcpy(offered, version);
    if (chipVersion(active) != 0) {
        return -1;
    }
    return compareVersions(offered, active, result);
}
