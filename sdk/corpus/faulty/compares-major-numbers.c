// checkVersion compares what atoi makes of the versions: 1.1 is the same as 1.0.
// finds: F211 F217
#define OWN_compareVersion
#include "base.h"

static inline int compareVersion(const char* offered, int* verdict)
{
    char installed[TARNWICK_CONTROL_TEXT_SIZE] = "";
    unsigned int number = 0;
    if (readVersion(installed) != 0 || parseVersion(offered, &number) != 0) {
        return -1;
    }
    *verdict = (atoi(offered) > atoi(installed)) - (atoi(offered) < atoi(installed));
    return 0;
}
