// doUpdate compares with the usual CRC of 32 bits instead of the system's.
// finds: F401
#define OWN_checksum
#include "base.h"

static inline uint32_t checksum(const unsigned char* bytes, size_t size)
{
    uint32_t sum = 0xffffffffU;
    for (size_t i = 0; i < size; ++i) {
        sum ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit) {
            sum = (sum >> 1) ^ (sum & 1 ? 0xedb88320U : 0);
        }
    }
    return ~sum;
}
