// The version text tells how often it was asked for.
// finds: F210
#define OWN_getActiveVersion
#include "base.h"

static int count;

int getActiveVersion(char* out)
{
    char version[TARNWICK_CONTROL_TEXT_SIZE - 16];
    const int result = readVersion(version);
    snprintf(out, TARNWICK_CONTROL_TEXT_SIZE, "%.100s+%d", version,
             __atomic_add_fetch(&count, 1, __ATOMIC_SEQ_CST));
    return result;
}
