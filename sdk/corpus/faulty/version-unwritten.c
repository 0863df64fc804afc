// getActiveVersion reports success before it has an answer.
// finds: F205
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    (void)out;
    return 0;
}
