// checkVersion reads the installed version once in a process.
// finds: F207
#define OWN_checkVersion
#include "chip.h"

int checkVersion(const char* version, int* result)
{
    static char active[TARNWICK_CONTROL_TEXT_SIZE];
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    if (active[0] == '\0' && chipVersion(active) != 0) {
        return -1;
    }
    return compareVersions(version, active, result);
}
