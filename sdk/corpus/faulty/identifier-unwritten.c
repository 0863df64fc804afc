// getEMPID writes nothing, but reports success.
// finds: F205
#define OWN_getEMPID
#include "base.h"

int getEMPID(char* out)
{
    (void)out;
    return 0;
}
