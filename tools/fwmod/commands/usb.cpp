// fwmod usb: the encrypted, signed image that a module is updated from on a USB stick. The same input, key
// and initialisation vector give the same bytes.
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstring>
#include <fstream>
#include <memory>
#include <openssl/crypto.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <optional>
#include <unistd.h>
#include <vector>

#include "common/files/overwriting.h"
#include "common/files/owned-file.h"
#include "common/files/regular-file.h"
#include "common/plain-words.h"
#include "common/terminal/visible-text.h"
#include "tools/fwmod/commands/command.h"
#include "tools/fwmod/files.h"
#include "tools/fwmod/images/usb-image.h"
#include "vset/signature/image-signature.h"

namespace fwmod
{

namespace fs = std::filesystem;

namespace
{
constexpr std::size_t kChunkSize = 65536;

struct UsbOptions {
    std::string versionHeader;
    std::string headerFile;
    std::string payload;
    std::string keyFile;
    std::string signKey;
    std::string iv;
    std::string output;
};

struct Closer {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    void operator()(BIO* bytes) const { BIO_free(bytes); }
};

common::OwnedFile openFile(const fs::path& path, const char* mode)
{
    common::OwnedFile file(std::fopen(path.c_str(), mode));
    if (!file) {
        throw common::Failure("cannot open " + common::shown(path) + ": " + std::strerror(errno));
    }
    return file;
}

// ---- What goes in ----

usb::VersionHeader fillHeader(const std::string& bytes, const std::string& source, std::size_t longest)
{
    if (bytes.empty()) {
        throw common::WrongUse(source + " is empty: give what the module's checkVersion reads, such as 1.1");
    }
    if (bytes.size() > longest) {
        throw common::WrongUse(source + " is too long: at most " + std::to_string(longest) + " bytes");
    }
    usb::VersionHeader header = {};
    std::copy(bytes.begin(), bytes.end(), header.begin());
    return header;
}

usb::VersionHeader readHeader(const UsbOptions& options)
{
    if (options.headerFile.empty()) { // a text keeps its terminator
        return fillHeader(options.versionHeader, "--version-header", usb::kVersionHeaderSize - 1);
    }
    requireReadable(options.headerFile);
    std::ifstream file(options.headerFile, std::ios::binary);
    std::string bytes(usb::kVersionHeaderSize + 1, '\0');
    file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<std::size_t>(file.gcount()));
    return fillHeader(bytes, "--header-file " + options.headerFile, usb::kVersionHeaderSize);
}

usb::Iv chooseIv(const std::string& text)
{
    usb::Iv iv;
    if (text.empty()) {
        if (RAND_bytes(iv.data(), static_cast<int>(iv.size())) != 1) {
            throw common::Failure("OpenSSL has no random bytes: give --iv");
        }
    } else if (text.size() != 2 * iv.size() || !common::parseHex(text.data(), iv.size(), iv.data())) {
        throw common::WrongUse("--iv: 32 hexadecimal digits are needed");
    }
    return iv;
}

struct Question {
    std::string text;
    bool isAsked = false;
    bool isInterrupted = false;
};

// OpenSSL's own way to ask puts the terminal's echo back whatever happens, and takes the signals meanwhile.
// It tries another decoder after a wrong answer, which need not ask again.
int askPassword(char* password, int size, int, void* data)
{
    auto& question = *static_cast<Question*>(data);
    if (question.isAsked) {
        return -1;
    }
    question.isAsked = true;
    const int result = EVP_read_pw_string_min(password, 0, size - 1, question.text.c_str(), 0);
    question.isInterrupted = result == -2;
    return result == 0 ? static_cast<int>(std::strlen(password)) : -1;
}

// The content of a key's file, wiped afterwards.
class KeyText
{
public:
    explicit KeyText(const fs::path& path)
    {
        constexpr std::size_t kLargest = 65536; // bytes; a key of the scheme has some 3300
        requireReadable(path);
        std::string problem;
        std::optional<std::string> text = common::readRegularFile(path, kLargest, problem);
        if (!text) {
            throw common::Failure(common::shown(path) + " " + problem + ": name the signing key's file");
        }
        text_ = std::move(*text);
    }
    ~KeyText() { OPENSSL_cleanse(text_.data(), text_.size()); }
    KeyText(const KeyText&) = delete;
    KeyText& operator=(const KeyText&) = delete;
    // Null when it holds no key, or the question was not answered rightly.
    signature::Key parse(Question& question) const
    {
        const std::unique_ptr<BIO, Closer> bytes(
            BIO_new_mem_buf(text_.data(), static_cast<int>(text_.size())));
        return signature::Key(bytes ? PEM_read_bio_PrivateKey(bytes.get(), nullptr, askPassword, &question)
                                    : nullptr);
    }

private:
    std::string text_;
};

// Asks for the password of a protected key on the terminal.
signature::Key readSigningKey(const fs::path& path)
{
    Question question{"Password of " + common::visible(path.string()) + ": "};
    signature::Key key = KeyText(path).parse(question);
    if (question.isInterrupted) {
        std::raise(SIGINT);
    }
    if (!key && question.isAsked) {
        throw common::Failure("the password of " + common::shown(path) +
                              " is not right, or its key is damaged: try again (openssl pkey -in FILE "
                              "-noout asks for it, too)");
    }
    if (!key) {
        throw common::Failure(common::shown(path) +
                              " holds no private key in PEM form that can be read: make one with "
                              "openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:4096");
    }
    if (!signature::isSchemeKey(key.get())) {
        throw common::Failure(common::shown(path) + " is another kind of key: RSA with 4096 bits is needed");
    }
    return key;
}

std::int64_t imageSize(std::int64_t payloadSize)
{
    const std::int64_t plain = static_cast<std::int64_t>(usb::kVersionHeaderSize) + payloadSize;
    const auto block = static_cast<std::int64_t>(usb::kBlockSize);
    return static_cast<std::int64_t>(usb::kIvSize + signature::kTrailerSize) + (plain / block + 1) * block;
}

void refuseTooLargePayload(const fs::path& payload)
{
    const auto size = static_cast<std::int64_t>(fs::file_size(payload));
    if (size > usb::kLargestImage || imageSize(size) > usb::kLargestImage) {
        throw common::Failure(common::shown(payload) + " is too large: the image would have more than " +
                              std::to_string(usb::kLargestImage) + " bytes, which the daemon cannot count");
    }
}

// ---- What comes out ----

// Writes the image's bytes in order; all but the signature itself are signed.
class ImageWriter
{
public:
    // `name`: what the person calls it, and failures do.
    ImageWriter(const fs::path& path, const std::string& name, EVP_PKEY* key)
        : name_(name), file_(openFile(path, "wbe")), digest_(EVP_MD_CTX_new())
    {
        if (!digest_ || EVP_DigestSignInit(digest_.get(), nullptr, EVP_sha256(), nullptr, key) != 1) {
            throw common::Failure("OpenSSL refuses the signing key");
        }
    }
    void writeSigned(const unsigned char* data, std::size_t size)
    {
        if (EVP_DigestSignUpdate(digest_.get(), data, size) != 1) {
            throw common::Failure("OpenSSL cannot compute the signature");
        }
        write(data, size);
    }
    // The signature, then everything to the disk: a stick may be pulled out at once.
    std::int64_t finish()
    {
        unsigned char bytes[signature::kSignatureSize];
        std::size_t length = sizeof bytes;
        if (EVP_DigestSignFinal(digest_.get(), bytes, &length) != 1 || length != sizeof bytes) {
            throw common::Failure("OpenSSL cannot compute the signature");
        }
        write(bytes, sizeof bytes);
        if (std::fflush(file_.get()) != 0 || fsync(fileno(file_.get())) != 0) {
            throw common::Failure("cannot write " + name_ + ": " + common::reasonOf(errno));
        }
        return ftello(file_.get());
    }

private:
    void write(const unsigned char* data, std::size_t size)
    {
        if (std::fwrite(data, 1, size, file_.get()) != size) {
            throw common::Failure("cannot write " + name_ + ": " + common::reasonOf(errno));
        }
    }

    std::string name_;
    common::OwnedFile file_;
    std::unique_ptr<EVP_MD_CTX, Closer> digest_;
};

void encrypt(const usb::VersionHeader& header, const fs::path& payload, EVP_CIPHER_CTX* cipher,
             ImageWriter& out)
{
    const common::OwnedFile in = openFile(payload, "rbe");
    std::vector<unsigned char> plain(header.begin(), header.end());
    std::vector<unsigned char> secret(kChunkSize + usb::kBlockSize);
    int produced = 0;
    while (!plain.empty()) {
        if (EVP_CipherUpdate(cipher, secret.data(), &produced, plain.data(),
                             static_cast<int>(plain.size())) != 1) {
            throw common::Failure("the cipher of OpenSSL refused its input");
        }
        out.writeSigned(secret.data(), static_cast<std::size_t>(produced));
        plain.resize(kChunkSize);
        plain.resize(std::fread(plain.data(), 1, plain.size(), in.get()));
    }
    if (std::ferror(in.get()) != 0) {
        throw common::Failure("cannot read " + common::shown(payload) + " to its end");
    }
    if (EVP_CipherFinal_ex(cipher, secret.data(), &produced) != 1) {
        throw common::Failure("the cipher of OpenSSL cannot end");
    }
    out.writeSigned(secret.data(), static_cast<std::size_t>(produced));
}

int makeImage(const UsbOptions& options)
{
    const usb::VersionHeader header = readHeader(options);
    const usb::Iv iv = chooseIv(options.iv);
    common::refuseOverwriting("-o", options.output,
                              {options.payload, options.keyFile, options.signKey, options.headerFile});
    requireReadable(options.payload);
    refuseTooLargePayload(options.payload);
    NewFile result(options.output);
    const Remover afterKill; // made before a key is in memory, which it would have as well
    const signature::Key signKey = readSigningKey(options.signKey);
    const common::ContentKey key(options.keyFile);

    ImageWriter out(result.path(), options.output, signKey.get());
    out.writeSigned(iv.data(), iv.size());
    encrypt(header, options.payload, usb::makeCipher(key, iv, true).get(), out);
    const signature::KeyId keyId = signature::keyIdOf(signKey.get());
    const signature::Header trailer = signature::makeHeader(keyId);
    out.writeSigned(trailer.data(), trailer.size());
    const std::int64_t size = out.finish();
    if (size > usb::kLargestImage) {
        throw common::Failure(options.payload + " grew while it was read, beyond what the daemon can count");
    }
    result.commit();
    std::printf("%s: %" PRId64 " bytes, signed with key %s\n", common::visible(options.output).c_str(), size,
                signature::toText(keyId).c_str());
    return 0;
}
} // namespace

void defineUsb(common::CommandLine& command)
{
    auto options = std::make_shared<UsbOptions>();
    common::CommandLine& header =
        command.group(common::CommandLine::Choice::kExactlyOne, "header", "What checkVersion reads");
    header.text("--version-header", options->versionHeader, "As a text, at most 63 bytes");
    header.text("--header-file", options->headerFile, "As a file, at most 64 bytes");
    command.text("--payload", options->payload, "The firmware image, as doUpdate_decryption gets it")
        .required();
    command.text("--key-file", options->keyFile, "Content key: a file of 32 bytes or 64 hexadecimal digits")
        .required();
    command.text("--sign-key", options->signKey, "Private RSA key with 4096 bits (PEM)").required();
    command.text("--iv", options->iv, "Initialisation vector, 32 hexadecimal digits (default: random)");
    command.text("-o,--output", options->output, "File to write; on the stick it is NAME.bin").required();
    command.footer(
        "NAME is the firmware's name: the module's identifier without its first \"emp\". The version "
        "header\nis filled up to 64 bytes with zeros. Do not use an initialisation vector twice.\n"
        "Example:\n"
        "  fwmod usb --version-header 1.1 --payload firmware --key-file content.key \\\n"
        "            --sign-key signing.pem -o stick/Tuner.bin");
    command.onRun([options] { return makeImage(*options); });
}
} // namespace fwmod
