// An update that was cut off is gone on with by the length of its file, whichever image that is of.
// finds: F504
#include "body-file.h"

static size_t keptBytes(int stage, const unsigned char* data, size_t n, size_t* unread)
{
    (void)data;
    const off_t size = lseek(stage, 0, SEEK_END);
    *unread = size > 0 && (size_t)size < n ? (size_t)size / BLOCK * BLOCK : 0;
    return *unread;
}
