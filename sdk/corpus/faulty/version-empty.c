// getActiveVersion reports an empty version.
// finds: F206
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    out[0] = '\0';
    return 0;
}
