// The progress stays 0 until the update is over.
// finds: F404
#define OWN_getUpdateProgress
#include "base.h"

int getUpdateProgress(unsigned int* out)
{
    *out = 0;
    return 0;
}
