// The checksum of a large image beside the byte-wise template that defines it and beside the reads alone, in
// the same run. All read a file from the page cache in the same pieces:
//   checksum-bench                    21 repetitions in random order, about a minute
//   checksum-bench --benchmark_...    as the options of Google Benchmark say

#include <benchmark/benchmark.h>
#include <boost/crc.hpp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/ratios.h"
#include "bench/temporary-file.h"
#include "src/src/fw-update-symbol.h"

namespace
{

using bench::File;
using bench::TemporaryFile;

constexpr int kImageSize = 256 << 20;

// Bytes without a pattern.
class Image
{
public:
    Image()
    {
        std::vector<unsigned char> bytes(1 << 20);
        uint32_t random = 1;
        for (int written = 0; written < kImageSize; written += static_cast<int>(bytes.size())) {
            for (unsigned char& byte : bytes) {
                random = random * 1664525 + 1013904223;
                byte = static_cast<unsigned char>(random >> 24);
            }
            if (fwrite(bytes.data(), 1, bytes.size(), file.file.get()) != bytes.size()) {
                perror("checksum-bench: cannot write the image");
                exit(EXIT_FAILURE);
            }
        }
        file.file.reset();
    }

    TemporaryFile file;
};

const std::string& imagePath()
{
    static const Image image;
    return image.file.path;
}

// Hands the file to `take` in the pieces in which the daemon reads it.
template <typename Take>
void readImage(Take take)
{
    const File file{fopen(imagePath().c_str(), "r"), fclose};
    unsigned char chunk[32768];
    while (const size_t count = fread(chunk, 1, sizeof chunk, file.get())) {
        take(chunk, count);
    }
}

void byteWiseTemplate(benchmark::State& state)
{
    for (auto _ : state) {
        boost::crc_optimal<32, 0x01B23CA3, 0, 0, false, false> crc;
        readImage([&](const unsigned char* bytes, size_t count) { crc.process_bytes(bytes, count); });
        benchmark::DoNotOptimize(crc.checksum());
    }
    state.SetBytesProcessed(state.iterations() * kImageSize);
}
BENCHMARK(byteWiseTemplate)->Unit(benchmark::kMillisecond)->UseRealTime();

void daemonChecksum(benchmark::State& state)
{
    FWUpdateSymbol module("bench");
    for (auto _ : state) {
        benchmark::DoNotOptimize(module.getBinaryCRC32(imagePath()));
    }
    state.SetBytesProcessed(state.iterations() * kImageSize);
}
BENCHMARK(daemonChecksum)->Unit(benchmark::kMillisecond)->UseRealTime();

void rawReads(benchmark::State& state)
{
    for (auto _ : state) {
        readImage([](const unsigned char* bytes, size_t) { benchmark::DoNotOptimize(*bytes); });
    }
    state.SetBytesProcessed(state.iterations() * kImageSize);
}
BENCHMARK(rawReads)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    return bench::runWithRatios(argc, argv, "byteWiseTemplate");
}
