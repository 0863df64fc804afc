// The progress is told in thousandths.
// finds: F406
#define OWN_getUpdateProgress
#include "chip.h"

int getUpdateProgress(unsigned int* out)
{
    *out = progressNow * 10;
    return 0;
}
