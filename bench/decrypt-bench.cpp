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
#include <map>
#include <memory>
#include <openssl/evp.h>
#include <ostream>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>
#include <vector>

#include "fw-update-symbol.h"

namespace
{

constexpr int kImageSize = 256 << 20;
constexpr int kTrailerSize = 534;
const unsigned char kKey[32] = {1};
const unsigned char kIv[16] = {2};

using File = std::unique_ptr<FILE, int (*)(FILE*)>;
using Cipher = std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX*)>;

// A file in the temporary directory, removed at the end.
class TemporaryFile
{
public:
    TemporaryFile()
    {
        const int descriptor = mkstemp(path.data());
        if (descriptor < 0) {
            perror("decrypt-bench: no temporary file");
            exit(EXIT_FAILURE);
        }
        file.reset(fdopen(descriptor, "wb"));
    }
    ~TemporaryFile() { unlink(path.c_str()); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    std::string path = "/tmp/decrypt-bench-XXXXXX";
    File file{nullptr, fclose};
};

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

// Prints the table, and the ratios to the bare loop under the same rule about huge pages.
class RatioReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.aggregate_name == "median" && !run.error_occurred) {
                medians[run.run_name.args][run.run_name.function_name] = {run.GetAdjustedRealTime(),
                                                                          run.GetAdjustedCPUTime()};
            }
        }
    }
    void Finalize() override
    {
        for (const auto& [pages, times] : medians) {
            const auto bare = times.find("bareLoop");
            for (const auto& [name, time] : times) {
                if (bare != times.end() && name != "bareLoop") {
                    GetOutputStream()
                        << pages << ": " << name << " / bareLoop = " << time.elapsed / bare->second.elapsed
                        << " of the time, " << time.processor / bare->second.processor
                        << " of the processor time\n";
                }
            }
        }
    }

private:
    struct Times {
        double elapsed;
        double processor; // of this process: not that of the openssl command
    };
    std::map<std::string, std::map<std::string, Times>> medians; // by argument, by function
};

} // namespace

int main(int argc, char** argv)
{
    std::string defaults[] = {"--benchmark_repetitions=21", "--benchmark_enable_random_interleaving=true",
                              "--benchmark_min_time=0.01", "--benchmark_report_aggregates_only=true"};
    std::vector<char*> arguments{argv[0]};
    for (std::string& option : defaults) {
        arguments.push_back(option.data());
    }
    arguments.insert(arguments.end(), argv + 1, argv + argc); // the last of a kind counts
    arguments.push_back(nullptr);
    int count = static_cast<int>(arguments.size()) - 1;
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 2;
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return EXIT_SUCCESS;
}
