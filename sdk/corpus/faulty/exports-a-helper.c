// A helper is exported as adler32, which the daemon's process has from elsewhere; nothing comes of it here.
// finds: F108
#include "base.h"

TARNWICK_CONTROL_EXPORT unsigned long adler32(unsigned long begin, const unsigned char* bytes,
                                              unsigned int size);

unsigned long adler32(unsigned long begin, const unsigned char* bytes, unsigned int size)
{
    unsigned long low = begin & 0xffffU;
    unsigned long high = begin >> 16;
    while (size-- > 0) {
        low = (low + *bytes++) % 65521U;
        high = (high + low) % 65521U;
    }
    return high << 16 | low;
}
