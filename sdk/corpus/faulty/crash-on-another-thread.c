// The state of the library belongs to the thread that loaded it; on any other its pointer is null.
// finds: F302
#define OWN_checkVersion
#include "base.h"

static int lastVerdict;
static __thread int* volatile last;

__attribute__((constructor)) static void start(void)
{
    last = &lastVerdict;
}

int checkVersion(const char* version, int* result)
{
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    const int status = compareVersion(version, result);
    *last = *result;
    return status;
}
