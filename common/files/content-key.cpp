#include "common/files/content-key.h"

#include <cerrno>
#include <cstring>
#include <openssl/crypto.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/errors.h"
#include "common/files/regular-file.h"

namespace common
{

namespace
{

constexpr std::size_t kDigits = 2 * ContentKey::kSize;

// Digits, an end of line of either kind, and one byte too many.
struct Contents {
    char text[kDigits + 3] = {};
    std::size_t size = 0;
    ~Contents() { OPENSSL_cleanse(text, sizeof text); }
};

void requirePrivate(const std::string& path, int file)
{
    struct stat status = {};
    if (fstat(file, &status) != 0 || (status.st_mode & 077) != 0) {
        throw Failure(
            "others may read the key file " + path +
            ", and it was not used: have a new key made if anybody may have read it, or else make the "
            "file your own (chmod 600 " +
            path + ") and try again");
    }
}

// Without a stream's buffer, which would keep a copy.
void readContents(const std::string& path, Contents& contents)
{
    if (access(path.c_str(), F_OK) != 0 && errno == ENOENT) {
        throw Failure("the key file " + path + " does not exist: check the path");
    }
    const RegularFile file(path);
    if (file.descriptor() < 0) {
        throw Failure("cannot read the key file: " + path + " " + file.problem());
    }
    requirePrivate(path, file.descriptor());
    const ssize_t count = read(file.descriptor(), contents.text, sizeof contents.text);
    if (count < 0) {
        throw Failure("cannot read the key file " + path + ": " + std::strerror(errno));
    }
    contents.size = static_cast<std::size_t>(count);
}

bool isEndOfLine(std::string_view rest)
{
    return rest.empty() || rest == "\n" || rest == "\r\n";
}

bool parseKey(const Contents& contents, unsigned char* bytes)
{
    if (contents.size == ContentKey::kSize) {
        std::memcpy(bytes, contents.text, ContentKey::kSize);
        return true;
    }
    const std::string_view text(contents.text, contents.size);
    return text.size() >= kDigits && isEndOfLine(text.substr(kDigits)) &&
           parseHex(contents.text, ContentKey::kSize, bytes);
}

int valueOf(char digit)
{
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    const char lower = static_cast<char>(digit | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

} // namespace

bool parseHex(const char* digits, std::size_t size, unsigned char* out)
{
    for (std::size_t i = 0; i < size; ++i) {
        const int high = valueOf(digits[2 * i]);
        const int low = valueOf(digits[2 * i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        out[i] = static_cast<unsigned char>(high << 4 | low);
    }
    return true;
}

ContentKey::ContentKey(const std::string& path)
{
    const rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore); // a crash of a library must not write the key to a disk
    mlock(bytes_, sizeof bytes_);    // nor the kernel; without the privilege it may
    Contents contents;
    readContents(path, contents);
    if (parseKey(contents, bytes_)) {
        return;
    }
    OPENSSL_cleanse(bytes_, sizeof bytes_); // there is no destructor for half an object
    throw Failure("the key file " + path +
                  " is no content key: it must hold 32 bytes, or 64 hexadecimal digits (openssl rand -out " +
                  path + " 32)");
}

ContentKey::~ContentKey()
{
    OPENSSL_cleanse(bytes_, sizeof bytes_);
    munlock(bytes_, sizeof bytes_);
}

} // namespace common
