// The version is read when the library is loaded, and never again.
// finds: F206 F409
#define OWN_getActiveVersion
#include "base.h"

static char version[TARNWICK_CONTROL_TEXT_SIZE];

__attribute__((constructor)) static void readOnce(void)
{
    readVersion(version);
}

int getActiveVersion(char* out)
{
    strcpy(out, version);
    return 0;
}
