// checkVersion copies 64 bytes of a text that may be shorter.
// finds: F204
#define OWN_checkVersion
#include "base.h"

int checkVersion(const char* version, int* result)
{
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    char copy[TARNWICK_CONTROL_VERSION_HEADER_SIZE + 1] = "";
    memcpy(copy, version, TARNWICK_CONTROL_VERSION_HEADER_SIZE);
    return compareVersion(copy, result);
}
