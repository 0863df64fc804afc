// getActiveVersion has another signature than the header's, so C++ exports it as another function.
// finds: F104
#define OWN_getActiveVersion
#include "base.h"

TARNWICK_CONTROL_EXPORT int getActiveVersion(char* out, size_t size)
{
    return size < TARNWICK_CONTROL_TEXT_SIZE ? fail(EINVAL) : readVersion(out);
}
