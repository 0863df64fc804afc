// The checksum of images: width 32, polynomial 0x01B23CA3, initial value 0, nothing reflected, no final XOR.
#ifndef FW_UPDATE_CHECKSUM_H
#define FW_UPDATE_CHECKSUM_H

#include <cstddef>
#include <cstdint>

// The checksum of what `checksum` stands for, 0 at the start, followed by these bytes. Any thread.
uint32_t extendChecksum(uint32_t checksum, const unsigned char* bytes, size_t count);

#endif
