// The cipher over a stream of any length with any size said of it, beside the library's cipher in one piece.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <openssl/evp.h>
#include <string>
#include <vector>

#include "src/src/fw-update-file.h"
#include "src/src/fw-update-symbol.h"
#include "tests/proof/fuzz/target.h"

namespace
{

constexpr unsigned char kKey[32] = {1, 2, 3};
constexpr unsigned char kIv[16] = {4, 5, 6};
constexpr int kTrailer = 534;
constexpr int kUntouched = -7;

// Nobody else releases it, and nobody must find it afterwards.
struct Free {
    void operator()(void* memory) const
    {
        cipher_buf_all = nullptr;
        std::free(memory);
    }
};

std::vector<unsigned char> inOnePiece(std::string_view content, int isEncrypted)
{
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> cipher{EVP_CIPHER_CTX_new(),
                                                                                 EVP_CIPHER_CTX_free};
    std::vector<unsigned char> plain(content.size() + EVP_MAX_BLOCK_LENGTH);
    int size = 0;
    int last = 0;
    EVP_CipherInit_ex(cipher.get(), EVP_aes_256_cbc(), nullptr, kKey, kIv, isEncrypted);
    EVP_CipherUpdate(cipher.get(), plain.data(), &size,
                     reinterpret_cast<const unsigned char*>(content.data()),
                     static_cast<int>(content.size()));
    if (EVP_CipherFinal_ex(cipher.get(), plain.data() + size, &last) == 1) {
        size += last;
    }
    plain.resize(static_cast<size_t>(size));
    return plain;
}

// The size that the caller believes in: the file's, or another one.
int sizeSaid(fuzz::Reader& reader, size_t really)
{
    const uint8_t kind = reader.byte();
    const auto number = static_cast<int>(reader.number());
    switch (kind % 4) {
    case 0:
        return static_cast<int>(really);
    case 1:
        return static_cast<int>(really) + number % 1024;
    case 2:
        return number % (1 << 20);
    default:
        return -std::abs(number / 2) - 1;
    }
}

void run(std::string_view input)
{
    fuzz::Reader reader(input);
    const int isEncrypted = reader.flag() ? 1 : 0;
    // Beyond one piece of the stream's, which is longer than what a fuzzer likes to write.
    const size_t repetitions = reader.byte() % 64 + 1U;
    fuzz::Reader size(reader.bytes(5));
    const std::string piece(reader.rest());
    std::string content;
    for (size_t i = 0; i < repetitions; ++i) {
        content += piece;
    }
    const int total = sizeSaid(size, content.size());
    const File file = openToRead(fuzz::fileWith("image", content));
    int length = kUntouched;
    const std::unique_ptr<unsigned char, Free> output{
        aes_256_cbc_all(file.get(), kKey, kIv, isEncrypted, total, length)};
    if (total < 0) {
        fuzz::require(!output && length == kUntouched, "a size below zero gives nothing");
        return;
    }
    const auto taken = static_cast<size_t>(std::max(total - kTrailer, 0));
    const std::vector<unsigned char> expected =
        inOnePiece(std::string_view(content).substr(0, taken), isEncrypted);
    fuzz::require(output && static_cast<size_t>(length) == expected.size() &&
                      std::equal(expected.begin(), expected.end(), output.get()),
                  "the stream gives what the cipher gives in one piece");
    const int held = std::max(total, 80);
    fuzz::require(std::all_of(output.get() + length, output.get() + held, [](int byte) { return byte == 0; }),
                  "what is not used is zero");
}

const fuzz::Target target("decryption", run);

} // namespace
