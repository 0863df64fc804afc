// checkVersion answers with the difference of the version numbers.
// finds: F208
#define OWN_compareVersion
#include "base.h"

static inline int compareVersion(const char* offered, int* verdict)
{
    char installed[TARNWICK_CONTROL_TEXT_SIZE] = "";
    unsigned int theirs = 0;
    unsigned int ours = 0;
    if (readVersion(installed) != 0 || parseVersion(installed, &ours) != 0 ||
        parseVersion(offered, &theirs) != 0) {
        return -1;
    }
    *verdict = 2 * ((int)theirs - (int)ours);
    return 0;
}
