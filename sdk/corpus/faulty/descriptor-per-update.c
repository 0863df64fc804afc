// Reading back after an update leaves a file open.
// finds: F310
#define OWN_verify
#include "chip.h"

static MAYBE_UNUSED int verify(const char* path, const unsigned char* data, size_t n)
{
    unsigned char block[BLOCK];
    FILE* f = fopen(path, "re");
    if (f == NULL) {
        return -1;
    }
    for (size_t at = 0; at < n; at += BLOCK) {
        size_t size = n - at < BLOCK ? n - at : BLOCK;
        if (fread(block, 1, size, f) != size || memcmp(block, data + at, size) != 0) {
            fclose(f);
            return fail(EIO);
        }
    }
    return 0;
}
