#include "tools/fwmod/images/secret-key.h"

#include "tools/fwmod/commands/command.h"
#include "tools/fwmod/files.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <openssl/crypto.h>

namespace fwmod
{

namespace
{
// Read without a stream's buffer, which would keep a copy.
class KeyText
{
public:
    explicit KeyText(const std::filesystem::path& path)
    {
        requireReadable(path);
        const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "rbe"), std::fclose);
        if (!file)
            throw common::Failure("cannot read the key file " + path.string() + ": check its permissions");
        std::setvbuf(file.get(), nullptr, _IONBF, 0);
        size_ = std::fread(text_, 1, sizeof text_, file.get());
    }
    ~KeyText() { OPENSSL_cleanse(text_, sizeof text_); }
    KeyText(const KeyText&) = delete;
    KeyText& operator=(const KeyText&) = delete;

    const char* data() const { return text_; }
    std::size_t size() const { return size_; }

private:
    char text_[2 * SecretKey::kSize + 3]; // digits, an end of line of either kind, and one byte too many
    std::size_t size_ = 0;
};

bool isEndOfLine(const char* text, std::size_t size)
{
    const std::string_view rest(text, size);
    return rest.empty() || rest == "\n" || rest == "\r\n";
}

int hexValue(char digit)
{
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F')
        return digit - 'A' + 10;
    return -1;
}
} // namespace

bool parseHex(const char* digits, std::size_t size, unsigned char* out)
{
    for (std::size_t i = 0; i < size; ++i) {
        const int high = hexValue(digits[2 * i]);
        const int low = hexValue(digits[2 * i + 1]);
        if (high < 0 || low < 0)
            return false;
        out[i] = static_cast<unsigned char>(high << 4 | low);
    }
    return true;
}

SecretKey::SecretKey(const std::filesystem::path& file) : bytes_()
{
    const KeyText text(file);
    constexpr std::size_t kDigits = 2 * kSize;
    if (text.size() == kSize) {
        std::copy_n(text.data(), kSize, bytes_.begin());
        return;
    }
    if (text.size() >= kDigits && isEndOfLine(text.data() + kDigits, text.size() - kDigits) &&
        parseHex(text.data(), kSize, bytes_.data()))
        return;
    OPENSSL_cleanse(bytes_.data(), bytes_.size()); // there is no destructor for half an object
    throw common::Failure("the key file " + file.string() +
                          " is no content key: it must hold 32 bytes, or 64 hexadecimal digits "
                          "(openssl rand -out content.key 32)");
}

SecretKey::~SecretKey()
{
    OPENSSL_cleanse(bytes_.data(), bytes_.size());
}
} // namespace fwmod
