#include "key-file.h"

#include "command.h"
#include "common/regular-file.h"

#include <cerrno>
#include <cstring>
#include <openssl/crypto.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
constexpr int kHexSize = 2 * Key::kSize;

// One byte more than any key file has, to tell a longer one.
struct Contents {
    char text[kHexSize + 3] = {};
    ssize_t size = 0;
    ~Contents() { OPENSSL_cleanse(text, sizeof text); }
};

void requirePrivate(const std::string& path, int file)
{
    struct stat status = {};
    if (fstat(file, &status) != 0 || (status.st_mode & 077) != 0) {
        throw common::Failure("warning: others may read the key file " + path +
                              ": it is refused until \"chmod 600 " + path +
                              "\", and the key should be taken as known to others");
    }
}

// Read without a library's buffer, which would keep a copy.
void readContents(const std::string& path, Contents& contents)
{
    const common::RegularFile file(path);
    if (file.descriptor() < 0) {
        throw common::Failure("cannot read the key file: " + path + " " + file.problem());
    }
    requirePrivate(path, file.descriptor());
    contents.size = read(file.descriptor(), contents.text, sizeof contents.text);
    if (contents.size < 0) {
        throw common::Failure("cannot read the key file " + path + ": " + std::strerror(errno));
    }
}

int digitOf(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

bool parseHex(const char* text, unsigned char* bytes)
{
    for (int index = 0; index < Key::kSize; ++index) {
        const int high = digitOf(text[2 * index]);
        const int low = digitOf(text[2 * index + 1]);
        if (high < 0 || low < 0)
            return false;
        bytes[index] = static_cast<unsigned char>(high * 16 + low);
    }
    return true;
}
} // namespace

Key::Key(const std::string& path)
{
    const rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore); // a crash of a library must not write the key to a disk
    mlock(bytes_, sizeof bytes_);    // nor the kernel; without the privilege it may
    Contents contents;
    readContents(path, contents);
    if (contents.size == kSize) {
        std::memcpy(bytes_, contents.text, sizeof bytes_);
        return;
    }
    while (contents.size > kHexSize &&
           (contents.text[contents.size - 1] == '\n' || contents.text[contents.size - 1] == '\r'))
        --contents.size;
    if (contents.size == kHexSize && parseHex(contents.text, bytes_))
        return;
    OPENSSL_cleanse(bytes_, sizeof bytes_);
    throw common::Failure("the key file " + path +
                          " holds no key: it must be 32 bytes, or 64 hexadecimal digits");
}

Key::~Key()
{
    OPENSSL_cleanse(bytes_, sizeof bytes_);
    munlock(bytes_, sizeof bytes_);
}
