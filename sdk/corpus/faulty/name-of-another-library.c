// The checksum's function is exported as crc32, and the daemon's process has one of that name from elsewhere.
// finds: F108 F401
#define OWN_checksumMatches
#include "base.h"

TARNWICK_CONTROL_EXPORT uint32_t crc32(uint32_t begin, const unsigned char* bytes, unsigned int size);

uint32_t crc32(uint32_t begin, const unsigned char* bytes, unsigned int size)
{
    return begin ^ checksum(bytes, size);
}

static inline int checksumMatches(unsigned long expected)
{
    return crc32(0, image, IMAGE_SIZE) == expected;
}
