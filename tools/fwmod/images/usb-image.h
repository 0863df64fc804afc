// The file that a module is updated from on a USB stick: where its parts lie, and reading it back.
//
//   0            initialisation vector, 16 bytes
//   16           AES-256-CBC with PKCS #7 padding, of 64 bytes version header and the payload
//   size - 534   trailer of the signature library
#ifndef TOOLS_FWMOD_IMAGES_USB_IMAGE_H
#define TOOLS_FWMOD_IMAGES_USB_IMAGE_H

#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <openssl/evp.h>
#include <tarnwick/control.h>

#include "common/files/content-key.h"

namespace fwmod
{

namespace usb
{
constexpr std::size_t kIvSize = 16;
constexpr std::size_t kBlockSize = 16;
constexpr std::size_t kVersionHeaderSize = TARNWICK_CONTROL_VERSION_HEADER_SIZE;
constexpr std::int64_t kLargestImage = INT32_MAX; // the daemon counts its bytes in an int

using Iv = std::array<unsigned char, kIvSize>;
using VersionHeader = std::array<unsigned char, kVersionHeaderSize>;

struct CipherRelease {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); } // wipes its key
};
using Cipher = std::unique_ptr<EVP_CIPHER_CTX, CipherRelease>;

// Ready to be fed. Throws Failure.
Cipher makeCipher(const common::ContentKey& key, const Iv& iv, bool encrypt);

struct Content {
    bool isSound;           // the padding at the end is right: false with a wrong key, or a damaged file
    VersionHeader header;   // meaningless when it is not
    std::int64_t plainSize; // header and payload
    unsigned int payloadChecksum; // the daemon's checksum, as fwmod crc prints it for the payload's file
};

// Decrypts `size` bytes that follow in the file and keeps the header only. Throws Failure when they cannot be
// read.
Content decrypt(FILE* file, std::int64_t size, const common::ContentKey& key, const Iv& iv);
} // namespace usb

} // namespace fwmod

#endif
