#include "tools/fwmod/check/examiner/updates/odd-images.h"

#include <boost/crc.hpp>
#include <cstdint>
#include <fstream>

#include "tools/fwmod/check/examiner/machine/hardware-copy.h"
#include "tools/fwmod/check/examiner/machine/held-image.h"

namespace fwmod::examiner
{

namespace fs = std::filesystem;

namespace
{
constexpr const char* kZeroSum = "another image, whose checksum is 0";

} // namespace

unsigned long checksumOf(const std::string& image)
{
    boost::crc_optimal<32, 0x01B23CA3, 0, 0, false, false> checksum;
    checksum.process_bytes(image.data(), image.size());
    return checksum.checksum();
}

namespace
{
OddImage makeOddImage(const Job& job, const fs::path& directory, const std::string& what,
                      const std::string& content)
{
    fs::create_directory(directory);
    const fs::path file = directory / fs::path(job.image).filename();
    std::ofstream(file, std::ios::binary) << content;
    return {what, file, checksumOf(content)};
}

// The register of the checksum as it was before its last byte, which has been `byte`.
std::uint32_t registerBefore(std::uint32_t now, unsigned char byte)
{
    constexpr std::uint32_t kPolynomial = 0x01B23CA3;
    for (int bit = 0; bit < 8; ++bit) {
        now = (now & 1) != 0 ? (now ^ kPolynomial) >> 1 | 0x80000000U : now >> 1;
    }
    return now ^ static_cast<std::uint32_t>(byte) << 24;
}
} // namespace

std::vector<OddImage> makeOddImages(const Job& job, const Machine& place)
{
    const std::string image = imageOf(job);
    return {
        makeOddImage(job, place.file("/half"), "the image's first half", image.substr(0, image.size() / 2)),
        makeOddImage(job, place.file("/noise"), "noise", noise(image.size())),
        makeOddImage(job, place.file("/nothing"), "no bytes at all", "")};
}

OddImage makeChangedImage(const Job& job, const Machine& place)
{
    std::string image = imageOf(job);
    image[image.size() / 2] = static_cast<char>(~image[image.size() / 2]);
    return makeOddImage(job, place.file("/changed"), kChanged, image);
}

OddImage makeZeroImage(const Job& job, const Machine& place)
{
    std::string image = imageOf(job);
    const std::size_t at =
        image.size() - image.size() / 8 - sizeof(std::uint32_t); // from there on it is slow
    std::uint32_t sum = 0;
    for (std::size_t end = image.size(); end-- > at + sizeof sum;) {
        sum = registerBefore(sum, static_cast<unsigned char>(image[end]));
    }
    for (std::size_t byte = 0; byte < sizeof sum; ++byte) {
        sum = registerBefore(sum, 0);
    }
    sum ^= static_cast<std::uint32_t>(checksumOf(image.substr(0, at)));
    for (std::size_t byte = 0; byte < sizeof sum; ++byte) {
        image[at + byte] = static_cast<char>(sum >> (24 - 8 * byte));
    }
    return makeOddImage(job, place.file("/zero"), kZeroSum, image);
}

OddImage makeLongerImage(const Job& job, const Machine& place)
{
    constexpr std::size_t kMore = 8 << 20;
    return makeOddImage(job, place.file("/longer"), "the image with 8 MiB of zeros behind it",
                        imageOf(job) + std::string(kMore, '\0'));
}
} // namespace fwmod::examiner
