// getUpdateProgress writes nothing before the first update.
// finds: F205
#define OWN_getUpdateProgress
#include "chip.h"

int getUpdateProgress(unsigned int* out)
{
    if (progressNow > 0) {
        *out = progressNow;
    }
    return 0;
}
