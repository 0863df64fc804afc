// The offered version is cut to 63 characters, and what is left of a longer one is compared.
// finds: F209 F217
#define OWN_compareVersion
#include "base.h"

static int numbersOf(const char* text, unsigned long number[2])
{
    char* end = NULL;
    number[0] = strtoul(text, &end, 10);
    number[1] = 0;
    if (strspn(text, "0123456789") == 0) {
        return fail(EINVAL);
    }
    if (*end == '.') {
        const char* const second = end + 1;
        number[1] = strtoul(second, &end, 10);
        if (strspn(second, "0123456789") == 0) {
            return fail(EINVAL);
        }
    }
    return *end == '\0' ? 0 : fail(EINVAL);
}

static inline int compareVersion(const char* offered, int* verdict)
{
    char installed[TARNWICK_CONTROL_TEXT_SIZE] = "";
    char text[64];
    unsigned long theirs[2];
    unsigned long ours[2];
    snprintf(text, sizeof text, "%.63s", offered);
    if (readVersion(installed) != 0 || numbersOf(installed, ours) != 0 || numbersOf(text, theirs) != 0) {
        return -1;
    }
    const int at = theirs[0] == ours[0] ? 1 : 0;
    *verdict = (theirs[at] > ours[at]) - (theirs[at] < ours[at]);
    return 0;
}
