// An update that was cut off is gone on with behind the last block that is as it must be.
// finds: nothing
#include "body-file.h"

static size_t keptBytes(int stage, const unsigned char* data, size_t n, size_t* unread)
{
    size_t kept = 0;
    *unread = 0;
    while (kept + BLOCK <= n && isThere(stage, data, kept + BLOCK, kept)) {
        kept += BLOCK;
    }
    return kept;
}
