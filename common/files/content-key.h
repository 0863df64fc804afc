// The content key of encrypted images: in one place of memory, wiped when it is done with. One reader for all
// programs, so that what the maker's takes the technician's takes, too.
#ifndef COMMON_FILES_CONTENT_KEY_H
#define COMMON_FILES_CONTENT_KEY_H

#include <cstddef>
#include <string>

namespace common
{

class ContentKey
{
public:
    static constexpr std::size_t kSize = 32; // bytes, of AES-256

    // Reads 32 raw bytes, or 64 hexadecimal digits with or without an end of line. Throws Failure for
    // anything else, and for a file that others than its owner may read; no message holds anything of the
    // file. From then on the process leaves no core dump.
    explicit ContentKey(const std::string& path);
    ~ContentKey();
    ContentKey(const ContentKey&) = delete;
    ContentKey& operator=(const ContentKey&) = delete;

    const unsigned char* data() const { return bytes_; }

private:
    unsigned char bytes_[kSize] = {};
};

// Reads 2 * `size` hexadecimal digits of either case into `out`; false when there is anything else.
bool parseHex(const char* digits, std::size_t size, unsigned char* out);

} // namespace common

#endif
