// make-information IMAGE VERSION SECONDS UI_USE OUT: the information file of an image, with its checksum. As
// `fwmod info` writes it, but standing on nothing of the daemon: the examples' images are among the first
// things that are built.
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "common/firmware.h"
#include "output.h"

namespace
{
bool isUiUse(const std::string& word)
{
    return word == "none" || word == "select" || word == "force";
}
} // namespace

int main(int argc, char** argv)
{
    char* end = nullptr;
    const unsigned long seconds = argc == 6 ? std::strtoul(argv[3], &end, 10) : 0;
    if (argc != 6 || *end != '\0' || seconds == 0 || !compareVersions(argv[2], argv[2]) ||
        !isUiUse(argv[4])) {
        std::fprintf(stderr, "usage: make-information IMAGE VERSION SECONDS none|select|force OUT\n"
                             "  as in: make-information Tuner.bin 1.1 8 none info.json\n");
        return 2;
    }
    if (!mayWrite(argv[5])) {
        return 1;
    }
    const auto bytes = readImageFile(argv[1]);
    if (!bytes) {
        std::fprintf(stderr, "make-information: %s: %s\n", argv[1], std::strerror(errno));
        return 1;
    }
    // Nothing in it needs to be escaped: digits, dots and three words.
    std::ofstream out(argv[5], std::ios::trunc);
    out << "{\n  \"crc\" : " << systemCrc32(bytes->data(), bytes->size())
        << ",\n  \"expected_time\" : " << seconds << ",\n  \"ui_use\" : \"" << argv[4]
        << "\",\n  \"version\" : \"" << argv[2] << "\"\n}\n";
    out.close();
    if (!out) {
        std::perror(argv[5]);
        std::remove(argv[5]);
        return 1;
    }
    return 0;
}
