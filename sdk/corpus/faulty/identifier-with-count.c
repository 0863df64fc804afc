// The identifier is another one when it is asked for again.
// finds: F210
#define OWN_getEMPID
#include "base.h"

static int calls;

int getEMPID(char* out)
{
    strcpy(out, __atomic_fetch_add(&calls, 1, __ATOMIC_SEQ_CST) == 0 ? IDENTIFIER : IDENTIFIER "Again");
    return 0;
}
