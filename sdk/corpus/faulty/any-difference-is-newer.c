// checkVersion takes every version that is not the installed one as newer.
// finds: F209 F217
#define OWN_compareVersion
#include "base.h"

static inline int compareVersion(const char* offered, int* verdict)
{
    char installed[TARNWICK_CONTROL_TEXT_SIZE] = "";
    if (readVersion(installed) != 0) {
        return -1;
    }
    *verdict = strcmp(offered, installed) != 0;
    return 0;
}
