#include "fw-update-checksum.h"

#include <array>
#include <boost/crc.hpp>

namespace
{

using Definition = boost::crc_optimal<32, 0x01B23CA3, 0, 0, false, false>;

// Sixteen bytes are taken at once ("slicing by 16"): what each of them adds to the checksum depends only on
// its value and on how many bytes follow it.
constexpr size_t kSlice = 16;
using Table = std::array<uint32_t, 256>;
using Tables = std::array<Table, kSlice>; // by the number of bytes that follow, then by value

Tables makeTables()
{
    Tables tables;
    for (unsigned int value = 0; value < 256; ++value) {
        Definition definition;
        definition.process_byte(static_cast<unsigned char>(value));
        for (Table& table : tables) {
            table[value] = definition.checksum();
            definition.process_byte(0);
        }
    }
    return tables;
}

uint32_t wordAt(const unsigned char* bytes)
{
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
           static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
}

// What four bytes add when `after` more of the slice follow them.
uint32_t shareOf(const Tables& tables, uint32_t word, size_t after)
{
    return tables[after + 3][word >> 24] ^ tables[after + 2][word >> 16 & 0xFF] ^
           tables[after + 1][word >> 8 & 0xFF] ^ tables[after][word & 0xFF];
}

} // namespace

uint32_t extendChecksum(uint32_t checksum, const unsigned char* bytes, size_t count)
{
    static const Tables tables = makeTables();
    for (; count >= kSlice; bytes += kSlice, count -= kSlice) { // the first word takes what was there along
        checksum = shareOf(tables, checksum ^ wordAt(bytes), 12) ^ shareOf(tables, wordAt(bytes + 4), 8) ^
                   shareOf(tables, wordAt(bytes + 8), 4) ^ shareOf(tables, wordAt(bytes + 12), 0);
    }
    for (; count > 0; ++bytes, --count) {
        checksum = (checksum << 8) ^ tables[0][(checksum >> 24) ^ *bytes];
    }
    return checksum;
}
