// checkVersion writes a verdict only when it is "newer".
// finds: F205 F219
#define OWN_checkVersion
#include "base.h"

int checkVersion(const char* version, int* result)
{
    int verdict = 0;
    if (compareVersion(version, &verdict) != 0) {
        return -1;
    }
    if (verdict > 0) {
        *result = verdict;
    }
    return 0;
}
