// A content key: 32 bytes that are nowhere but here, and wiped when they are no longer needed.
#ifndef FWMOD_SECRET_KEY_H
#define FWMOD_SECRET_KEY_H

#include <array>
#include <filesystem>

namespace fwmod
{

class SecretKey
{
public:
    static constexpr std::size_t kSize = 32;

    // From a file of 32 bytes, or of 64 hexadecimal digits with or without a newline. Throws Failure, which
    // says nothing of the content.
    explicit SecretKey(const std::filesystem::path& file);
    ~SecretKey();
    SecretKey(const SecretKey&) = delete;
    SecretKey& operator=(const SecretKey&) = delete;

    const unsigned char* data() const { return bytes_.data(); }

private:
    std::array<unsigned char, kSize> bytes_;
};

// Reads 2 * `size` hexadecimal digits of either case into `out`; false when there is anything else.
bool parseHex(const char* digits, std::size_t size, unsigned char* out);

} // namespace fwmod

#endif
