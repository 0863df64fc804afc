// The checksum, of bytes in any pieces and of a file, beside one that goes bit by bit.
#include "src/src/fw-update-checksum.h"
#include "src/src/fw-update-symbol.h"
#include "tests/proof/fuzz/target.h"

namespace
{

uint32_t bitByBit(std::string_view bytes)
{
    uint32_t checksum = 0;
    for (const char byte : bytes) {
        checksum ^= static_cast<uint32_t>(static_cast<unsigned char>(byte)) << 24;
        for (int bit = 0; bit < 8; ++bit) {
            checksum = checksum << 1 ^ ((checksum & 0x80000000U) != 0 ? 0x01B23CA3U : 0U);
        }
    }
    return checksum;
}

void run(std::string_view input)
{
    fuzz::Reader reader(input);
    fuzz::Reader sizes(reader.bytes(16));
    const std::string_view content = reader.rest();
    const uint32_t expected = bitByBit(content);
    uint32_t checksum = 0;
    fuzz::Reader pieces(content);
    for (std::string_view piece = " "; !piece.empty();) {
        const uint8_t size = sizes.byte();
        piece = size == 0 ? pieces.rest() : pieces.bytes(size);
        checksum =
            extendChecksum(checksum, reinterpret_cast<const unsigned char*>(piece.data()), piece.size());
    }
    fuzz::require(checksum == expected, "pieces give what bits give");
    fuzz::require(FWUpdateSymbol("tuner").getBinaryCRC32(fuzz::fileWith("image.bin", content)) == expected,
                  "a file gives what bits give");
}

const fuzz::Target target("checksum", run);

} // namespace
