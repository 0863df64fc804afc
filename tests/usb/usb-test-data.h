// What the tests of encrypted images share: bytes, a reference for the cipher, and programs to compare with.
#ifndef TESTS_USB_USB_TEST_DATA_H
#define TESTS_USB_USB_TEST_DATA_H

#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <openssl/evp.h>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

constexpr int kIvSize = 16;
constexpr int kVersionHeaderSize = 64;
constexpr int kTrailerSize = 534;
constexpr int kChunkSize = 10240; // in which the daemon reads

// The same bytes in every run of a test.
class Random
{
public:
    explicit Random(std::uint32_t seed) : engine(seed) {}
    std::string bytes(std::size_t count)
    {
        std::string result(count + sizeof(std::uint32_t), '\0');
        for (std::size_t at = 0; at < count; at += sizeof(std::uint32_t)) {
            const auto word = static_cast<std::uint32_t>(engine());
            std::memcpy(&result[at], &word, sizeof word);
        }
        result.resize(count);
        return result;
    }
    int number(int from, int to) { return std::uniform_int_distribution<int>(from, to)(engine); }

private:
    std::mt19937 engine;
};

inline const unsigned char* unsignedBytes(const std::string& text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}

// The cipher over the whole input at once; the last block is left out when its padding is wrong.
inline std::string cipherAtOnce(const std::string& input, const std::string& key, const std::string& iv,
                                bool encrypt)
{
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> cipher(EVP_CIPHER_CTX_new(),
                                                                                 &EVP_CIPHER_CTX_free);
    std::string output(input.size() + 2 * EVP_MAX_BLOCK_LENGTH, '\0');
    auto* const out = reinterpret_cast<unsigned char*>(output.data());
    int produced = 0;
    int last = 0;
    if (EVP_CipherInit_ex(cipher.get(), EVP_aes_256_cbc(), nullptr, unsignedBytes(key), unsignedBytes(iv),
                          encrypt ? 1 : 0) != 1 ||
        EVP_CipherUpdate(cipher.get(), out, &produced, unsignedBytes(input),
                         static_cast<int>(input.size())) != 1) {
        throw std::runtime_error("the reference cipher failed");
    }
    if (EVP_CipherFinal_ex(cipher.get(), out + produced, &last) == 1) {
        produced += last;
    }
    output.resize(static_cast<std::size_t>(produced));
    return output;
}

inline std::string toHex(const std::string& bytes)
{
    std::string text;
    for (const char byte : bytes) {
        constexpr char kDigits[] = "0123456789abcdef";
        text += kDigits[static_cast<unsigned char>(byte) >> 4];
        text += kDigits[static_cast<unsigned char>(byte) & 15];
    }
    return text;
}

inline std::string fromHex(const std::string& digits)
{
    std::string bytes;
    for (std::size_t at = 0; at + 1 < digits.size(); at += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
    }
    return bytes;
}

// The largest resident size since it was reset, in bytes.
inline std::int64_t peakMemory()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return std::stoll(line.substr(6)) * 1024;
        }
    }
    return -1;
}

// Lets it start from what is resident now, and returns that.
inline std::int64_t resetPeakMemory()
{
    std::ofstream("/proc/self/clear_refs") << 5;
    return peakMemory();
}

#endif
