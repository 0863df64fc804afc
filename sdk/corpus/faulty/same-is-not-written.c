// checkVersion writes nothing for the version that is installed.
// finds: F205
#define OWN_checkVersion
#include "chip.h"

int checkVersion(const char* version, int* result)
{
    char active[TARNWICK_CONTROL_TEXT_SIZE];
    int order = 0;
    if (chipVersion(active) != 0 || compareVersions(version, active, &order) != 0) {
        *result = 0;
        return -1;
    }
    if (order > 0) {
        *result = TARNWICK_CONTROL_VERDICT_NEWER;
    } else if (order < 0) {
        *result = TARNWICK_CONTROL_VERDICT_OLDER;
    }
    return 0;
}
