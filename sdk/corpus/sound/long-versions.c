// A version of any length is looked at to its last character; a longer one than the buffer is refused.
// finds: nothing
// runs: whole
#define OWN_compareVersion
#include "base.h"

static int numbersOf(const char* text, unsigned long numbers[4])
{
    char* end = NULL;
    memset(numbers, 0, 4 * sizeof numbers[0]);
    for (int i = 0; i < 4 && strspn(text, "0123456789") > 0; ++i) {
        errno = 0;
        numbers[i] = strtoul(text, &end, 10);
        if (errno != 0) {
            return -1;
        }
        if (*end == '\0') {
            return 0;
        }
        if (*end != '.') {
            break;
        }
        text = end + 1;
    }
    return fail(EINVAL);
}

static inline int compareVersion(const char* offered, int* verdict)
{
    char installed[TARNWICK_CONTROL_TEXT_SIZE] = "";
    char text[200];
    unsigned long theirs[4];
    unsigned long ours[4];
    if ((size_t)snprintf(text, sizeof text, "%s", offered) >= sizeof text) {
        return fail(EINVAL);
    }
    if (readVersion(installed) != 0 || numbersOf(installed, ours) != 0 || numbersOf(text, theirs) != 0) {
        return -1;
    }
    *verdict = 0;
    for (int i = 0; i < 4 && *verdict == 0; ++i) {
        *verdict = (theirs[i] > ours[i]) - (theirs[i] < ours[i]);
    }
    return 0;
}
