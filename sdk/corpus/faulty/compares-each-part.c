// checkVersion takes a version as newer when any of its numbers is larger.
// finds: F217
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
    const int isLarger = theirs / 10000 > ours / 10000 || theirs % 10000 > ours % 10000;
    *verdict = isLarger         ? TARNWICK_CONTROL_VERDICT_NEWER
               : theirs == ours ? TARNWICK_CONTROL_VERDICT_SAME
                                : TARNWICK_CONTROL_VERDICT_OLDER;
    return 0;
}
