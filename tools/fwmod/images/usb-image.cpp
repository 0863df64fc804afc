#include "tools/fwmod/images/usb-image.h"

#include <algorithm>
#include <vector>

#include "src/src/fw-update-checksum.h"
#include "tools/fwmod/commands/command.h"

namespace fwmod
{

namespace
{
constexpr std::size_t kChunkSize = 65536;

// Keeps the first bytes, counts all, and computes the checksum of the others.
class HeaderKeeper
{
public:
    explicit HeaderKeeper(usb::Content& content) : content_(content) {}
    void take(const unsigned char* data, int count)
    {
        const auto size = static_cast<std::int64_t>(content_.header.size());
        const std::int64_t wanted = std::clamp<std::int64_t>(size - content_.plainSize, 0, count);
        std::copy_n(data, wanted, content_.header.begin() + std::min(content_.plainSize, size));
        content_.payloadChecksum =
            extendChecksum(content_.payloadChecksum, data + wanted, static_cast<std::size_t>(count - wanted));
        content_.plainSize += count;
    }

private:
    usb::Content& content_;
};
} // namespace

usb::Cipher usb::makeCipher(const common::ContentKey& key, const Iv& iv, bool encrypt)
{
    Cipher cipher(EVP_CIPHER_CTX_new());
    if (!cipher || EVP_CipherInit_ex(cipher.get(), EVP_aes_256_cbc(), nullptr, key.data(), iv.data(),
                                     encrypt ? 1 : 0) != 1) {
        throw common::Failure("the cipher of OpenSSL cannot be used: check the OpenSSL installation");
    }
    return cipher;
}

usb::Content usb::decrypt(FILE* file, std::int64_t size, const common::ContentKey& key, const Iv& iv)
{
    const Cipher cipher = makeCipher(key, iv, false);
    std::vector<unsigned char> in(kChunkSize);
    std::vector<unsigned char> out(kChunkSize + kBlockSize);
    Content content = {};
    HeaderKeeper keeper(content);
    int produced = 0;
    while (size > 0) {
        const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(size, kChunkSize));
        if (std::fread(in.data(), 1, wanted, file) != wanted) {
            throw common::Failure(
                "the file ended while it was read: is somebody writing it, or was the stick removed?");
        }
        if (EVP_CipherUpdate(cipher.get(), out.data(), &produced, in.data(), static_cast<int>(wanted)) != 1) {
            throw common::Failure("the cipher of OpenSSL refused its input");
        }
        keeper.take(out.data(), produced);
        size -= static_cast<std::int64_t>(wanted);
    }
    content.isSound = EVP_CipherFinal_ex(cipher.get(), out.data(), &produced) == 1;
    if (content.isSound) {
        keeper.take(out.data(), produced);
    }
    return content;
}
} // namespace fwmod
