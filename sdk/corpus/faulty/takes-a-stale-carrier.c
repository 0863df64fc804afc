// What was handed over before a power cut is not again when its length is right: it may be of another image.
// finds: F502
#define OWN_install
#include "carrier.h"

static inline int carry(void)
{
    struct stat before;
    return stat(CARRIER, &before) == 0 && before.st_size == (off_t)IMAGE_SIZE ? 0 : writeCarrier();
}
