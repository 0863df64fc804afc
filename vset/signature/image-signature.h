// Signatures of encrypted images: the 534 bytes at the end of a file, and whom a set trusts.
//
//   offset  length
//        0       8  "TWKIMAGE"
//        8       2  layout of this trailer: 1
//       10       2  scheme: 1 = RSA with 4096 bits, PKCS #1 v1.5, SHA-256
//       12       8  key: the first bytes of the SHA-256 of the public key (SubjectPublicKeyInfo, DER)
//       20       2  length of the signature: 512
//       22     512  signature over all bytes of the file before it, those 22 included
//
// Numbers are big-endian. Nothing here throws but std::bad_alloc; every function may be called on any thread.
#ifndef VSET_SIGNATURE_IMAGE_SIGNATURE_H
#define VSET_SIGNATURE_IMAGE_SIGNATURE_H

#include <array>
#include <cstddef>
#include <memory>
#include <openssl/evp.h>
#include <string>
#include <vector>

namespace signature
{

constexpr std::size_t kTrailerSize = 534;
constexpr std::size_t kSignatureSize = 512;
constexpr std::size_t kHeaderSize = kTrailerSize - kSignatureSize;
constexpr std::size_t kKeyIdSize = 8;
constexpr int kKeyBits = 4096;

using Header = std::array<unsigned char, kHeaderSize>;
using KeyId = std::array<unsigned char, kKeyIdSize>;

struct KeyRelease {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyRelease>;

struct TrustedKey {
    KeyId id;
    Key key;
};

enum class Verdict {
    Signed,
    Unreadable,    // also a file that shrinks while it is read
    NoFile,        // a directory, a pipe, a device
    TooShort,      // less than a trailer
    NoTrailer,     // the first eight bytes of the trailer are others
    UnknownScheme, // a layout, scheme or length that this code does not know
    UnknownKey,    // signed by someone who is not trusted
    WrongSignature // the file or its trailer was changed
};

// A regular file opened for reading, or -1. Never waits, whatever lies there. The caller closes it.
int openRegularFile(const char* path);

// A public key of the scheme's kind from a PEM file. Null when the file holds none.
Key readPublicKey(const std::string& path);

// Whether a key, public or private, is of the scheme's kind.
bool isSchemeKey(const EVP_PKEY* key);
KeyId keyIdOf(const EVP_PKEY* key);
std::string toText(const KeyId& id); // hexadecimal

// Keys of a directory's PEM files, by file name; others are passed over.
std::vector<TrustedKey> readKeyDirectory(const std::string& directory);

// The first 22 bytes of a trailer.
Header makeHeader(const KeyId& id);
// Whether a header announces a trailer of this kind, and the key that it names.
bool hasMagic(const Header& header);
KeyId keyIdIn(const Header& header);

// Judges an open file from its beginning, wherever it stands. Memory does not depend on its size.
Verdict verify(int descriptor, const std::vector<TrustedKey>& trusted);

} // namespace signature

#endif
