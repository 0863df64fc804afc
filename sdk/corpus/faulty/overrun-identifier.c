// getEMPID clears one byte more than its buffer has.
// finds: F204
#define OWN_getEMPID
#include "base.h"

int getEMPID(char* out)
{
    memset(out, 0, TARNWICK_CONTROL_TEXT_SIZE + 1);
    strcpy(out, IDENTIFIER);
    return 0;
}
