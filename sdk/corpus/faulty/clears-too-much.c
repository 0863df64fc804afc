// getEMPID clears twice the buffer's size.
// finds: F204
#define OWN_getEMPID
#include "chip.h"

#define EMPID_SIZE 256

int getEMPID(char* out)
{
    strncpy(out, IDENTIFIER, EMPID_SIZE);
    return 0;
}
