// A number that begins with 0 is taken as an octal one; the hardware tells four numbers, images have two.
// finds: F217
#define OWN_compareVersion
#define OWN_getActiveVersion
#include "base.h"

static inline int compareVersion(const char* offered, int* verdict)
{
    char installed[TARNWICK_CONTROL_TEXT_SIZE] = "";
    unsigned int number = 0;
    int theirs[2] = {0};
    int ours[2] = {0};
    if (readVersion(installed) != 0 || parseVersion(offered, &number) != 0 ||
        sscanf(offered, "%i.%i", &theirs[0], &theirs[1]) != 2 ||
        sscanf(installed, "%i.%i", &ours[0], &ours[1]) != 2) {
        return -1;
    }
    const int first = theirs[0] == ours[0] ? 1 : 0; // that differs, perhaps
    *verdict = (theirs[first] > ours[first]) - (theirs[first] < ours[first]);
    return 0;
}

int getActiveVersion(char* out)
{
    char version[TARNWICK_CONTROL_TEXT_SIZE] = "";
    const int result = readVersion(version);
    snprintf(out, TARNWICK_CONTROL_TEXT_SIZE, "%.100s.0.0", version);
    return result;
}
