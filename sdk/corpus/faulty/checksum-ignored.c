// doUpdate does not look at the checksum.
// finds: F410
#define OWN_checksumMatches
#include "base.h"

static inline int checksumMatches(unsigned long expected)
{
    (void)expected;
    return 1;
}
