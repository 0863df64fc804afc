// One bank: its head is erased first and written last; meanwhile 0.0 is told.
// finds: nothing
#define OWN_chipVersion
#define OWN_chipWrite
#include "head-last.h"

static int chipVersion(char* out)
{
    size_t n = 0;
    struct image image;
    unsigned char* whole = slurp(CHIP, &n);
    if (whole == NULL) {
        return -1;
    }
    strcpy(out,
           parseImage(whole, n, &image) == 0 ? image.version : "0.0"); // the chip's boot loader does this
    free(whole);
    return 0;
}
