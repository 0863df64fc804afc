// getActiveVersion tells the version that was built in when the hardware does not answer.
// finds: F215
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    if (readVersion(out) != 0) {
        strcpy(out, "1.0");
    }
    return 0;
}
