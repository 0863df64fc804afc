// getActiveVersion guards itself with an alarm and leaves it running.
// finds: F314
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    alarm(3600);
    return readVersion(out);
}
