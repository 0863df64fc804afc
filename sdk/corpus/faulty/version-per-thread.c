// Only the thread that loaded the library knows the hardware; to any other one it has no firmware yet.
// finds: F210
#define OWN_getActiveVersion
#include "base.h"

static __thread int isReady;

__attribute__((constructor)) static void start(void)
{
    isReady = 1;
}

int getActiveVersion(char* out)
{
    if (isReady) {
        return readVersion(out);
    }
    strcpy(out, "0.0");
    return 0;
}
