// getExpectedTime has no time to tell before the first update.
// finds: F201
#define OWN_getExpectedTime
#include "base.h"

static int lastDuration;

int getExpectedTime(int* out)
{
    *out = lastDuration == 0 ? 1 : lastDuration;
    return lastDuration == 0 ? fail(EAGAIN) : 0;
}
