// checkVersion looks at the beginning of the offered version alone.
// finds: F209 F217
#define OWN_checkVersion
#include "chip.h"

int checkVersion(const char* version, int* result)
{
    char active[TARNWICK_CONTROL_TEXT_SIZE];
    unsigned a = 0, b = 0, c = 0, d = 0;
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    if (chipVersion(active) != 0) {
        return -1;
    }
    if (sscanf(version, "%u.%u", &a, &b) != 2 || sscanf(active, "%u.%u", &c, &d) != 2) {
        return fail(EINVAL);
    }
    int order = a != c ? (a > c ? 1 : -1) : (b > d) - (b < d);
    *result = order;
    return 0;
}
