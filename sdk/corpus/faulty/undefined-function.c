// A function of a vendor's library is called for one kind of image only; the library was not linked.
// finds: F106
#define OWN_checkImage
#include "base.h"

int vendorUnpack(const unsigned char* bytes, size_t size);

static inline int checkImage(const unsigned char* bytes, size_t size)
{
    if (size > 2 && bytes[0] == 'P' && bytes[1] == 'K') {
        return vendorUnpack(bytes, size);
    }
    return size == IMAGE_SIZE ? 0 : fail(EBADMSG);
}
