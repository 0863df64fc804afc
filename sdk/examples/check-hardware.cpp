// check-hardware CHIP [IMAGE]: the version of the firmware on a chip and, with IMAGE, whether it is that
// image's payload byte for byte. Exit status: 0 sound (and the same), 1 not, 2 wrong use.
#include <cstdio>
#include <cstring>

#include "common/firmware.h"

namespace
{
int complain(const char* what)
{
    std::fprintf(stderr, "check-hardware: %s: %s\n", what, std::strerror(errno));
    return 1;
}
} // namespace

int main(int argc, char** argv)
{
    if (argc != 2 && argc != 3) {
        std::fprintf(stderr, "usage: check-hardware CHIP [IMAGE]\n"
                             "  as in: check-hardware SET/root/var/lib/hardware/tuner Tuner.bin\n");
        return 2;
    }
    const SlottedFlash chip(argv[1], std::chrono::milliseconds(0));
    const auto version = chip.activeVersion();
    const auto firmware = chip.activeFirmware();
    if (!version || !firmware) {
        return complain(argv[1]);
    }
    if (argc == 2) {
        std::printf("version %s, %zu bytes\n", version->c_str(), firmware->size());
        return 0;
    }
    const auto bytes = readImageFile(argv[2]);
    if (!bytes) {
        return complain(argv[2]);
    }
    const auto image = parseImage(bytes->data(), bytes->size());
    if (!image) {
        return complain(argv[2]);
    }
    const bool isSame = image->version == *version && image->payload == *firmware;
    std::printf("version %s, %zu bytes: %s\n", version->c_str(), firmware->size(),
                isSame ? "the same as the image" : "NOT the image");
    return isSame ? 0 : 1;
}
