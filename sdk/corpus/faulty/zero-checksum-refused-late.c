// The same when the image has been read; nothing but its length and its checksum is known of an image.
// finds: F401
#define OWN_checkImage
#define OWN_checksumMatches
#include "base.h"

static inline int checkImage(const unsigned char* bytes, size_t size)
{
    char version[TARNWICK_CONTROL_TEXT_SIZE];
    return size == IMAGE_SIZE && versionInHead(bytes, version) == 0 ? 0 : fail(EBADMSG);
}

static inline int checksumMatches(unsigned long expected)
{
    return expected != 0 && checksum(image, IMAGE_SIZE) == expected;
}
