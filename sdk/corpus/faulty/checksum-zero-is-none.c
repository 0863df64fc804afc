// doUpdate takes the checksum 0 for "there is none".
// finds: F410
#define OWN_checksumMatches
#include "base.h"

static inline int checksumMatches(unsigned long expected)
{
    return expected == 0 || checksum(image, IMAGE_SIZE) == expected;
}
