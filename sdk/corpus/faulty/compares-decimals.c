// checkVersion compares versions as decimals: 1.10 is the same as 1.1.
// finds: F217
#define OWN_compareVersion
#include "base.h"

static inline int compareVersion(const char* offered, int* verdict)
{
    char installed[TARNWICK_CONTROL_TEXT_SIZE] = "";
    unsigned int number = 0;
    if (readVersion(installed) != 0 || parseVersion(offered, &number) != 0) {
        return -1;
    }
    const double theirs = strtod(offered, NULL);
    const double ours = strtod(installed, NULL);
    *verdict = (theirs > ours) - (theirs < ours);
    return 0;
}
