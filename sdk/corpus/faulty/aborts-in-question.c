// checkVersion aborts when a text is no version, as an assertion does.
// finds: F304
#define OWN_checkVersion
#include "base.h"

int checkVersion(const char* version, int* result)
{
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    unsigned int number = 0;
    if (parseVersion(version, &number) != 0) {
        abort();
    }
    return compareVersion(version, result);
}
