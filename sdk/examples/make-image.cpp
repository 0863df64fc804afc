// make-image HARDWARE VERSION BYTES OUT: an image for one of the examples, with a payload of BYTES bytes that
// is the same for the same arguments.
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "common/firmware.h"
#include "output.h"

namespace
{
// Bytes that compress badly and differ from version to version, as firmware does.
std::vector<unsigned char> makePayload(const std::string& seed, std::size_t size)
{
    std::uint32_t state = systemCrc32(reinterpret_cast<const unsigned char*>(seed.data()), seed.size()) | 1U;
    std::vector<unsigned char> payload(size);
    for (unsigned char& byte : payload) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<unsigned char>(state);
    }
    return payload;
}
} // namespace

int main(int argc, char** argv)
{
    char* end = nullptr;
    const unsigned long size = argc == 5 ? std::strtoul(argv[3], &end, 10) : 0;
    if (argc != 5 || *end != '\0' || size == 0 || size > SlottedFlash::kSlotSize ||
        !compareVersions(argv[2], argv[2])) {
        std::fprintf(stderr, "usage: make-image HARDWARE VERSION BYTES OUT\n"
                             "  as in: make-image tuner 1.1 524288 Tuner.bin (at most 2097152 bytes)\n");
        return 2;
    }
    if (!mayWrite(argv[4])) {
        return 1;
    }
    const Image image{argv[1], argv[2], makePayload(std::string(argv[1]) + argv[2], size)};
    const auto bytes = formatImage(image);
    std::ofstream out(argv[4], std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out) {
        std::perror(argv[4]);
        std::remove(argv[4]);
        return 1;
    }
    return 0;
}
