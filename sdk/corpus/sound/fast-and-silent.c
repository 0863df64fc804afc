// The update is over before its progress could rise.
// finds: nothing
#define BLOCK_MS 0
#define OWN_getUpdateProgress
#include "base.h"

int getUpdateProgress(unsigned int* out)
{
    *out = 0;
    return 0;
}
