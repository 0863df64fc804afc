// getUpdateProgress writes a long where the daemon has an unsigned int.
// finds: F204
#define OWN_getUpdateProgress
#include "base.h"

int getUpdateProgress(unsigned int* out)
{
    const unsigned long wide = __atomic_load_n(&progress, __ATOMIC_SEQ_CST);
    memcpy(out, &wide, sizeof wide);
    return 0;
}
