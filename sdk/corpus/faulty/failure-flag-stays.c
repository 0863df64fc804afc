// doUpdate remembers that it has failed once, and fails from then on.
// finds: F418
#define OWN_checksumMatches
#include "base.h"

static int hasFailed;

static inline int checksumMatches(unsigned long expected)
{
    hasFailed = hasFailed || checksum(image, IMAGE_SIZE) != expected;
    return !hasFailed;
}
