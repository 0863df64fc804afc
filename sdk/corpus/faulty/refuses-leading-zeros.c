// checkVersion lets the C library find out the base, and so does not understand 1.09.
// finds: F217
#define OWN_compareVersion
#include "base.h"

static int numbersOf(const char* text, unsigned long number[2])
{
    char* end = NULL;
    number[0] = strtoul(text, &end, 0);
    if (end == text || *end != '.') {
        return fail(EINVAL);
    }
    const char* const second = end + 1;
    number[1] = strtoul(second, &end, 0);
    return strspn(second, "0123456789") == 0 || *end != '\0' ? fail(EINVAL) : 0;
}

static inline int compareVersion(const char* offered, int* verdict)
{
    char installed[TARNWICK_CONTROL_TEXT_SIZE] = "";
    unsigned long theirs[2];
    unsigned long ours[2];
    if (readVersion(installed) != 0 || numbersOf(installed, ours) != 0 || numbersOf(offered, theirs) != 0) {
        return -1;
    }
    const int at = theirs[0] == ours[0] ? 1 : 0;
    *verdict = (theirs[at] > ours[at]) - (theirs[at] < ours[at]);
    return 0;
}
