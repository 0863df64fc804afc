// getUpdateProgress writes nothing while no update runs.
// finds: F205
#define OWN_getUpdateProgress
#include "base.h"

int getUpdateProgress(unsigned int* out)
{
    const unsigned int percent = __atomic_load_n(&progress, __ATOMIC_SEQ_CST);
    if (percent != 0 && percent != 100) {
        *out = percent;
    }
    return 0;
}
