// checkVersion compares with the version that the library was delivered with: right until the first update.
// finds: F207
#define OWN_checkVersion
#include "base.h"

int checkVersion(const char* version, int* result)
{
    unsigned int offered = 0;
    unsigned int delivered = 0;
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    if (parseVersion(version, &offered) != 0 || parseVersion("1.0", &delivered) != 0) {
        return -1;
    }
    *result = (offered > delivered) - (offered < delivered);
    return 0;
}
