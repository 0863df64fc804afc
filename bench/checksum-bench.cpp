// The checksum of a large image beside the byte-wise template that defines it, beside the reads alone, and
// beside the command that has another checksum of the same width. All read a file from the page cache, all
// but the command in the same pieces.

#include <boost/crc.hpp>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <vector>

#include "bench/child.h"
#include "bench/measure.h"
#include "bench/temporary-file.h"
#include "src/src/fw-update-symbol.h"

namespace
{

using bench::TemporaryFile;

// Bytes without a pattern.
std::shared_ptr<TemporaryFile> makeImage(int size)
{
    auto image = std::make_shared<TemporaryFile>();
    std::vector<unsigned char> bytes(1 << 20);
    uint32_t random = 1;
    for (int written = 0; written < size; written += static_cast<int>(bytes.size())) {
        for (unsigned char& byte : bytes) {
            random = random * 1664525 + 1013904223;
            byte = static_cast<unsigned char>(random >> 24);
        }
        image->append(bytes.data(), bytes.size());
    }
    image->finish();
    return image;
}

// Hands the file to `take` in the pieces in which the daemon reads it.
template <typename Take>
void readImage(const TemporaryFile& image, Take take)
{
    const common::OwnedFile file{fopen(image.path.c_str(), "r")};
    unsigned char chunk[32768];
    while (const size_t count = fread(chunk, 1, sizeof chunk, file.get())) {
        take(chunk, count);
    }
}

uint32_t sumByTemplate(const TemporaryFile& image)
{
    boost::crc_optimal<32, 0x01B23CA3, 0, 0, false, false> crc;
    readImage(image, [&](const unsigned char* bytes, size_t count) { crc.process_bytes(bytes, count); });
    return crc.checksum();
}

void declare()
{
    const auto image = makeImage(bench::isTrial() ? 2 << 20 : 256 << 20);
    const uint32_t expected = sumByTemplate(*image);
    const auto declareSum = [expected](const std::string& name, const std::function<uint32_t()>& sum) {
        bench::add(name, [=](bench::Sample& sample) {
            uint32_t found = 0;
            sample.time([&] { found = sum(); });
            if (found != expected) {
                throw std::runtime_error("another checksum");
            }
        });
    };
    declareSum("byteWiseTemplate", [image] { return sumByTemplate(*image); });
    declareSum("daemon", [image] { return FWUpdateSymbol("bench").getBinaryCRC32(image->path); });
    bench::add("rawReads", [image](bench::Sample& sample) {
        volatile unsigned char kept = 0;
        sample.time([&] { readImage(*image, [&](const unsigned char* bytes, size_t) { kept = *bytes; }); });
    });
    bench::add("cksum", [image](bench::Sample& sample) {
        sample.time([&] { bench::runProgram({"cksum", image->path}); });
    });
}

} // namespace

int main(int argc, char** argv)
{
    return bench::main(argc, argv, declare);
}
