// checkVersion blocks a signal and does not let it through again.
// finds: F306
#define OWN_checkVersion
#include <signal.h>

#include "base.h"

int checkVersion(const char* version, int* result)
{
    *result = TARNWICK_CONTROL_VERDICT_SAME;
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &end, NULL);
    return compareVersion(version, result);
}
