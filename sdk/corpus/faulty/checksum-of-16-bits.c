// doUpdate compares the low 16 bits of the checksum.
// finds: F410
#define OWN_checksumMatches
#include "base.h"

static inline int checksumMatches(unsigned long expected)
{
    return (uint16_t)checksum(image, IMAGE_SIZE) == (uint16_t)expected;
}
