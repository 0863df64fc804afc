// The progress is 100 before anything was updated.
// finds: F417
#define OWN_getUpdateProgress
#include "base.h"

static int isBegun;

int getUpdateProgress(unsigned int* out)
{
    const unsigned int percent = __atomic_load_n(&progress, __ATOMIC_SEQ_CST);
    isBegun = isBegun || percent > 0;
    *out = isBegun ? percent : 100;
    return 0;
}
