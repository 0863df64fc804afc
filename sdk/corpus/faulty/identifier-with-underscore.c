// The identifier has a sign in it.
// finds: F202
#define OWN_getEMPID
#include "chip.h"

int getEMPID(char* out)
{
    strcpy(out, IDENTIFIER "_v2");
    return 0;
}
