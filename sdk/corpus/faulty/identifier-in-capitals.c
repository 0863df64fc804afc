// The identifier is written in capitals.
// finds: F202
#define OWN_getEMPID
#include "chip.h"

int getEMPID(char* out)
{
    strcpy(out, "EMPCORPUS");
    return 0;
}
