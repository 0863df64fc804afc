// Decryption of a large image beside two peers in the same run: a bare loop of cipher calls in chunks of the
// same size into one zeroed buffer, and the openssl command. All read from the page cache. Huge pages are
// kept away from the process first and allowed then, as far as the kernel gives any
// (/sys/kernel/mm/transparent_hugepage/enabled). The ratios at the end are those of the medians:
//   decrypt-bench                    21 repetitions in random order, about two minutes
//   decrypt-bench --benchmark_...    as the options of Google Benchmark say

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <openssl/evp.h>
#include <string>
#include <sys/prctl.h>
#include <vector>

#include "bench/ratios.h"
#include "bench/temporary-file.h"
#include "src/src/fw-update-symbol.h"

namespace
{

constexpr int kImageSize = 256 << 20;
constexpr int kTrailerSize = 534;
const unsigned char kKey[32] = {1};
const unsigned char kIv[16] = {2};

using bench::File;
using bench::TemporaryFile;
using Cipher = std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX*)>;

// A ciphertext, and the same with a trailer behind it: openssl does not pass over that.
class Image
{
public:
    Image()
    {
        const Cipher cipher{EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free};
        EVP_EncryptInit_ex(cipher.get(), EVP_aes_256_cbc(), nullptr, kKey, kIv);
        const std::vector<unsigned char> plain(1 << 20, 0x5a);
        std::vector<unsigned char> out(plain.size() + EVP_MAX_BLOCK_LENGTH);
        int count = 0;
        for (int written = 0; written < kImageSize; written += static_cast<int>(plain.size())) {
            EVP_EncryptUpdate(cipher.get(), out.data(), &count, plain.data(), static_cast<int>(plain.size()));
            append(out.data(), count);
        }
        EVP_EncryptFinal_ex(cipher.get(), out.data(), &count);
        append(out.data(), count);
        fwrite(plain.data(), 1, kTrailerSize, image.file.get());
        image.file.reset();
        ciphertext.file.reset();
    }

    TemporaryFile image;
    TemporaryFile ciphertext;
    long size = 0; // of the ciphertext

private:
    void append(const unsigned char* data, int count)
    {
        for (const TemporaryFile* target : {&image, &ciphertext}) {
            if (fwrite(data, 1, static_cast<size_t>(count), target->file.get()) !=
                static_cast<size_t>(count)) {
                perror("decrypt-bench: cannot write the image");
                exit(EXIT_FAILURE);
            }
        }
        size += count;
    }
};

const Image& image()
{
    static const Image instance;
    return instance;
}

// Argument of every benchmark: whether the process may have huge pages.
void setHugePages(const benchmark::State& state)
{
    prctl(PR_SET_THP_DISABLE, state.range(0) == 0 ? 1 : 0, 0, 0, 0);
}

void bareLoop(benchmark::State& state)
{
    setHugePages(state);
    for (auto _ : state) {
        const File file{fopen(image().ciphertext.path.c_str(), "rb"), fclose};
        const Cipher cipher{EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free};
        const std::unique_ptr<unsigned char, void (*)(void*)> out{
            static_cast<unsigned char*>(calloc(static_cast<size_t>(image().size) + kTrailerSize, 1)), free};
        EVP_DecryptInit_ex(cipher.get(), EVP_aes_256_cbc(), nullptr, kKey, kIv);
        unsigned char chunk[10240];
        int produced = 0;
        int step = 0;
        for (long left = image().size; left > 0;) {
            const auto wanted = std::min<size_t>(sizeof chunk, static_cast<size_t>(left));
            const size_t count = fread(chunk, 1, wanted, file.get());
            EVP_DecryptUpdate(cipher.get(), out.get() + produced, &step, chunk, static_cast<int>(count));
            produced += step;
            left -= static_cast<long>(count);
        }
        EVP_DecryptFinal_ex(cipher.get(), out.get() + produced, &step);
        benchmark::DoNotOptimize(out.get());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * image().size);
}
BENCHMARK(bareLoop)->ArgName("hugePages")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void daemonDecryption(benchmark::State& state)
{
    setHugePages(state);
    for (auto _ : state) {
        const File file{fopen(image().image.path.c_str(), "rb"), fclose};
        int length = 0;
        unsigned char* const out =
            aes_256_cbc_all(file.get(), kKey, kIv, 0, static_cast<int>(image().size) + kTrailerSize, length);
        if (length != kImageSize) {
            state.SkipWithError("wrong length");
        }
        free(out); // within the time, as in the bare loop
    }
    state.SetBytesProcessed(state.iterations() * image().size);
}
BENCHMARK(daemonDecryption)
    ->ArgName("hugePages")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void opensslCommand(benchmark::State& state)
{
    setHugePages(state);
    const std::string command = "openssl enc -d -aes-256-cbc -in " + image().ciphertext.path +
                                " -K 0100000000000000000000000000000000000000000000000000000000000000"
                                " -iv 02000000000000000000000000000000 >/dev/null";
    for (auto _ : state) {
        if (system(command.c_str()) != 0) {
            state.SkipWithError("the openssl command failed");
        }
    }
    state.SetBytesProcessed(state.iterations() * image().size);
}
BENCHMARK(opensslCommand)->ArgName("hugePages")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    return bench::runWithRatios(argc, argv, "bareLoop");
}
