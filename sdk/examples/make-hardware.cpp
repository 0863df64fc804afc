// make-hardware HARDWARE IMAGE OUT: a chip as it leaves the factory, with the image's firmware on it. Written
// by the same code that later updates it.
#include <cstdio>
#include <cstring>

#include "common/firmware.h"
#include "output.h"

namespace
{
int complain(const char* what)
{
    std::fprintf(stderr, "make-hardware: %s: %s\n", what, std::strerror(errno));
    return 1;
}
} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: make-hardware HARDWARE IMAGE OUT\n"
                             "  as in: make-hardware tuner Tuner.bin SET/root/var/lib/hardware/tuner\n");
        return 2;
    }
    if (!mayWrite(argv[3])) {
        return 1;
    }
    const auto bytes = readImageFile(argv[2]);
    if (!bytes) {
        return complain(argv[2]);
    }
    const auto image = parseImage(bytes->data(), bytes->size());
    if (!image) {
        return complain(argv[2]);
    }
    if (image->hardware != argv[1]) {
        std::fprintf(stderr, "make-hardware: %s is an image for %s, not for %s\n", argv[2],
                     image->hardware.c_str(), argv[1]);
        return 1;
    }
    // Under another name first: a chip that exists is a complete one.
    const std::string unfinished = std::string(argv[3]) + ".new";
    std::remove(unfinished.c_str());
    const SlottedFlash chip(unfinished, std::chrono::milliseconds(0));
    if (chip.create() != 0 || chip.program(image->version, image->payload, nullptr) != 0 ||
        std::rename(unfinished.c_str(), argv[3]) != 0) {
        complain(argv[3]);
        std::remove(unfinished.c_str());
        return 1;
    }
    return 0;
}
