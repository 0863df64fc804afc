// checkVersion compares texts as a dictionary does, so that letters are newer than any number.
// finds: F209 F217
#define OWN_compareVersion
#include "base.h"

static inline int compareVersion(const char* offered, int* verdict)
{
    char installed[TARNWICK_CONTROL_TEXT_SIZE] = "";
    if (readVersion(installed) != 0) {
        return -1;
    }
    const int order = strcmp(offered, installed);
    *verdict = (order > 0) - (order < 0);
    return 0;
}
