// getActiveVersion answers with 1, this maker's "true".
// finds: F201
#define OWN_getActiveVersion
#include "base.h"

int getActiveVersion(char* out)
{
    return readVersion(out) == 0;
}
