// Content keys, and the public keys that signatures are judged by.
#include <cctype>
#include <cstring>

#include "common/errors.h"
#include "common/files/content-key.h"
#include "tests/proof/fuzz/target.h"
#include "vset/signature/image-signature.h"

namespace
{

constexpr size_t kSize = common::ContentKey::kSize;

bool isHexadecimal(std::string_view text)
{
    const std::string_view digits = text.substr(0, 2 * kSize);
    const std::string_view rest = text.substr(digits.size());
    for (const char digit : digits) {
        if (std::isxdigit(static_cast<unsigned char>(digit)) == 0) {
            return false;
        }
    }
    return digits.size() == 2 * kSize && (rest.empty() || rest == "\n" || rest == "\r\n");
}

void readContentKey(std::string_view text)
{
    bool isRead = false;
    try {
        const common::ContentKey key(fuzz::fileWith("content.key", text));
        isRead = true;
        fuzz::require(text.size() != kSize || std::memcmp(key.data(), text.data(), kSize) == 0,
                      "bytes are the key");
    } catch (const common::Failure& error) {
        fuzz::require(std::strstr(error.what(), "no content key") != nullptr, "what is refused is no key");
    }
    fuzz::require(isRead == (text.size() == kSize || isHexadecimal(text)), "a key is 32 bytes or 64 digits");
}

void readPublicKey(std::string_view text)
{
    const signature::Key key = signature::readPublicKey(fuzz::fileWith("signing.pem", text));
    if (key) {
        fuzz::require(signature::isSchemeKey(key.get()), "a key is of the scheme's kind");
        fuzz::require(signature::toText(signature::keyIdOf(key.get())).size() == 2 * signature::kKeyIdSize,
                      "a key has a name");
    }
}

void run(std::string_view input)
{
    fuzz::Reader reader(input);
    const bool isPublic = reader.byte() == '-'; // as the key's own first line begins
    if (isPublic) {
        readPublicKey(input);
    } else {
        readContentKey(input);
    }
}

const fuzz::Target target("key-file", run);

} // namespace
