// The progress has three steps, all of them big.
// finds: nothing
#define OWN_getUpdateProgress
#include "base.h"

int getUpdateProgress(unsigned int* out)
{
    const unsigned int percent = __atomic_load_n(&progress, __ATOMIC_SEQ_CST);
    *out = percent < 50 ? 0 : percent < 100 ? 50 : 100;
    return 0;
}
