#include "vset/signature/image-signature.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "common/files/owned-file.h"
#include "common/files/unique-fd.h"

namespace signature
{

namespace
{

namespace fs = std::filesystem;

constexpr unsigned char kMagic[8] = {'T', 'W', 'K', 'I', 'M', 'A', 'G', 'E'};
constexpr unsigned char kLayoutAndScheme[4] = {0, 1, 0, 1};
constexpr unsigned char kLength[2] = {kSignatureSize >> 8, kSignatureSize & 0xff};
constexpr std::size_t kLayoutOffset = 8;
constexpr std::size_t kKeyIdOffset = 12;
constexpr std::size_t kLengthOffset = 20;
constexpr std::size_t kChunkSize = 65536;
constexpr off_t kLargestKeyFile = 65536; // bytes; a key of the scheme has some 800

struct Release {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// False when the file ends before, or cannot be read.
bool readAt(int descriptor, unsigned char* out, std::size_t size, off_t offset)
{
    while (size > 0) {
        const ssize_t count = pread(descriptor, out, size, offset);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        out += count;
        offset += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

// A protected key would have somebody asked for its password.
int refusePassword(char*, int, int, void*)
{
    return -1;
}

bool isKnownScheme(const Header& header)
{
    return memcmp(&header[kLayoutOffset], kLayoutAndScheme, sizeof kLayoutAndScheme) == 0 &&
           memcmp(&header[kLengthOffset], kLength, sizeof kLength) == 0;
}

// Whether the signature at the end fits the `size` bytes before it.
Verdict check(int descriptor, off_t size, EVP_PKEY* key)
{
    unsigned char signature[kSignatureSize];
    if (!readAt(descriptor, signature, sizeof signature, size)) {
        return Verdict::Unreadable;
    }
    const std::unique_ptr<EVP_MD_CTX, Release> digest(EVP_MD_CTX_new());
    if (!digest || EVP_DigestVerifyInit(digest.get(), nullptr, EVP_sha256(), nullptr, key) != 1) {
        return Verdict::Unreadable;
    }
    std::vector<unsigned char> chunk(kChunkSize);
    for (off_t at = 0; at < size;) {
        const auto count = static_cast<std::size_t>(std::min<off_t>(size - at, kChunkSize));
        if (!readAt(descriptor, chunk.data(), count, at) ||
            EVP_DigestVerifyUpdate(digest.get(), chunk.data(), count) != 1) {
            return Verdict::Unreadable;
        }
        at += static_cast<off_t>(count);
    }
    return EVP_DigestVerifyFinal(digest.get(), signature, sizeof signature) == 1 ? Verdict::Signed
                                                                                 : Verdict::WrongSignature;
}

} // namespace

int openRegularFile(const char* path)
{
    // Without waiting: opening a pipe would last until somebody writes into it.
    common::UniqueFd descriptor(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status = {};
    if (descriptor.get() < 0 || fstat(descriptor.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return -1;
    }
    return descriptor.release();
}

Key readPublicKey(const std::string& path)
{
    common::UniqueFd descriptor(openRegularFile(path.c_str()));
    struct stat status = {};
    if (descriptor.get() < 0 || fstat(descriptor.get(), &status) != 0 || status.st_size > kLargestKeyFile) {
        return nullptr; // what is larger would be searched to its end
    }
    const common::OwnedFile file(fdopen(descriptor.get(), "rb"));
    if (!file) {
        return nullptr;
    }
    descriptor.release(); // the stream closes it
    Key key(PEM_read_PUBKEY(file.get(), nullptr, refusePassword, nullptr));
    return key && isSchemeKey(key.get()) ? std::move(key) : nullptr;
}

bool isSchemeKey(const EVP_PKEY* key)
{
    return EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA && EVP_PKEY_get_bits(key) == kKeyBits;
}

KeyId keyIdOf(const EVP_PKEY* key)
{
    KeyId id = {};
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key, &der);
    if (length <= 0) {
        return id; // out of memory: the identity of no key
    }
    unsigned char hash[SHA256_DIGEST_LENGTH];
    SHA256(der, static_cast<std::size_t>(length), hash);
    OPENSSL_free(der);
    std::copy_n(hash, id.size(), id.begin());
    return id;
}

std::string toText(const KeyId& id)
{
    std::string text;
    for (const unsigned char byte : id) {
        constexpr char kDigits[] = "0123456789abcdef";
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

std::vector<TrustedKey> readKeyDirectory(const std::string& directory)
{
    std::vector<std::string> paths;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->path().extension() == ".pem") {
            paths.push_back(entry->path());
        }
    }
    std::sort(paths.begin(), paths.end());
    std::vector<TrustedKey> keys;
    for (const std::string& path : paths) {
        if (Key key = readPublicKey(path)) {
            keys.push_back({keyIdOf(key.get()), std::move(key)});
        }
    }
    return keys;
}

Header makeHeader(const KeyId& id)
{
    Header header = {};
    std::copy(std::begin(kMagic), std::end(kMagic), header.begin());
    std::copy(std::begin(kLayoutAndScheme), std::end(kLayoutAndScheme), header.begin() + kLayoutOffset);
    std::copy(id.begin(), id.end(), header.begin() + kKeyIdOffset);
    std::copy(std::begin(kLength), std::end(kLength), header.begin() + kLengthOffset);
    return header;
}

bool hasMagic(const Header& header)
{
    return std::equal(std::begin(kMagic), std::end(kMagic), header.begin());
}

KeyId keyIdIn(const Header& header)
{
    KeyId id;
    std::copy_n(header.begin() + kKeyIdOffset, id.size(), id.begin());
    return id;
}

Verdict verify(int descriptor, const std::vector<TrustedKey>& trusted)
{
    struct stat status = {};
    if (fstat(descriptor, &status) != 0) {
        return Verdict::Unreadable;
    }
    if (!S_ISREG(status.st_mode)) {
        return Verdict::NoFile;
    }
    if (status.st_size < static_cast<off_t>(kTrailerSize)) {
        return Verdict::TooShort;
    }
    Header header;
    if (!readAt(descriptor, header.data(), header.size(),
                status.st_size - static_cast<off_t>(kTrailerSize))) {
        return Verdict::Unreadable;
    }
    if (!hasMagic(header)) {
        return Verdict::NoTrailer;
    }
    if (!isKnownScheme(header)) {
        return Verdict::UnknownScheme;
    }
    Verdict verdict = Verdict::UnknownKey;
    for (const TrustedKey& candidate : trusted) {
        if (candidate.id == keyIdIn(header) && verdict != Verdict::Signed) {
            verdict =
                check(descriptor, status.st_size - static_cast<off_t>(kSignatureSize), candidate.key.get());
        }
    }
    return verdict;
}

} // namespace signature
