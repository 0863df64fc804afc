// Decryption of a large image beside two peers in the same run: a bare loop of cipher calls in chunks of the
// same size into one zeroed buffer, and the openssl command. All read from the page cache. Huge pages are
// kept away from the process first and allowed then, as far as the kernel gives any
// (/sys/kernel/mm/transparent_hugepage/enabled).

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <openssl/evp.h>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <vector>

#include "bench/child.h"
#include "bench/measure.h"
#include "bench/temporary-file.h"
#include "src/src/fw-update-symbol.h"

namespace
{

constexpr int kTrailerSize = 534;
const unsigned char kKey[32] = {1};
const unsigned char kIv[16] = {2};

using bench::TemporaryFile;
using Cipher = std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX*)>;

// A ciphertext, and the same with a trailer behind it: openssl does not pass over that.
class Image
{
public:
    explicit Image(int plainSize)
    {
        const Cipher cipher{EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free};
        EVP_EncryptInit_ex(cipher.get(), EVP_aes_256_cbc(), nullptr, kKey, kIv);
        const std::vector<unsigned char> plain(1 << 20, 0x5a);
        std::vector<unsigned char> out(plain.size() + EVP_MAX_BLOCK_LENGTH);
        int count = 0;
        for (; plainLength < plainSize; plainLength += static_cast<int>(plain.size())) {
            EVP_EncryptUpdate(cipher.get(), out.data(), &count, plain.data(), static_cast<int>(plain.size()));
            append(out.data(), count);
        }
        EVP_EncryptFinal_ex(cipher.get(), out.data(), &count);
        append(out.data(), count);
        image.append(plain.data(), kTrailerSize);
        image.finish();
        ciphertext.finish();
    }

    TemporaryFile image;
    TemporaryFile ciphertext;
    int size = 0; // of the ciphertext
    int plainLength = 0;

private:
    void append(const unsigned char* data, int count)
    {
        image.append(data, static_cast<size_t>(count));
        ciphertext.append(data, static_cast<size_t>(count));
        size += count;
    }
};

// The buffer is let go within the time, as in the bare loop.
void decryptAsDaemon(const Image& image)
{
    const common::OwnedFile file{fopen(image.image.path.c_str(), "rb")};
    int length = 0;
    free(aes_256_cbc_all(file.get(), kKey, kIv, 0, image.size + kTrailerSize, length));
    if (length != image.plainLength) {
        throw std::runtime_error("decryption gives another length");
    }
}

void decryptInBareLoop(const Image& image)
{
    const common::OwnedFile file{fopen(image.ciphertext.path.c_str(), "rb")};
    const Cipher cipher{EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free};
    const std::unique_ptr<unsigned char, void (*)(void*)> out{
        static_cast<unsigned char*>(calloc(static_cast<size_t>(image.size) + kTrailerSize, 1)), free};
    EVP_DecryptInit_ex(cipher.get(), EVP_aes_256_cbc(), nullptr, kKey, kIv);
    unsigned char chunk[10240];
    int produced = 0;
    int step = 0;
    for (int left = image.size; left > 0;) {
        const auto wanted = std::min<size_t>(sizeof chunk, static_cast<size_t>(left));
        const size_t count = fread(chunk, 1, wanted, file.get());
        EVP_DecryptUpdate(cipher.get(), out.get() + produced, &step, chunk, static_cast<int>(count));
        produced += step;
        left -= static_cast<int>(count);
    }
    EVP_DecryptFinal_ex(cipher.get(), out.get() + produced, &step);
    if (produced + step != image.plainLength) {
        throw std::runtime_error("the bare loop gives another length");
    }
}

void decryptByCommand(const Image& image)
{
    bench::runProgram({"openssl", "enc", "-d", "-aes-256-cbc", "-in", image.ciphertext.path, "-K",
                       "0100000000000000000000000000000000000000000000000000000000000000", "-iv",
                       "02000000000000000000000000000000"});
}

void declare()
{
    const auto image = std::make_shared<Image>(bench::isTrial() ? 2 << 20 : 256 << 20);
    for (const bool hasHugePages : {false, true}) {
        const auto declareOne = [&](const std::string& name, void (*decrypt)(const Image&)) {
            bench::add(name + (hasHugePages ? "/hugePages" : "/smallPages"),
                       [image, hasHugePages, decrypt](bench::Sample& sample) {
                           prctl(PR_SET_THP_DISABLE, hasHugePages ? 0 : 1, 0, 0, 0);
                           sample.time([&] { decrypt(*image); });
                       });
        };
        declareOne("daemon", decryptAsDaemon);
        declareOne("bareLoop", decryptInBareLoop);
        if (bench::hasProgram("openssl")) {
            declareOne("openssl", decryptByCommand);
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    return bench::main(argc, argv, declare);
}
