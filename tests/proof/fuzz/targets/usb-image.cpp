// An encrypted image on a stick, probed and installed, with a control library that answers anything.
#include <openssl/evp.h>
#include <optional>
#include <string>
#include <vector>

#include "src/src/fw-update-symbol.h"
#include "tests/proof/fuzz/target.h"
#include "tools/fwmod/images/quiet-platform.h"

namespace
{

constexpr unsigned char kKey[32] = {9, 8, 7};
constexpr size_t kIvSize = 16;
constexpr size_t kHeaderSize = 64;
constexpr size_t kTrailer = 534;

struct Answers {
    int verdict;
    int versionResult;
    int time;
    int timeResult;
    int result;
};

std::string encrypted(std::string_view plain)
{
    const std::string iv(kIvSize, 'i');
    std::string cipher(plain.size() + EVP_MAX_BLOCK_LENGTH, '\0');
    auto* const bytes = reinterpret_cast<unsigned char*>(cipher.data());
    EVP_CIPHER_CTX* const context = EVP_CIPHER_CTX_new();
    int size = 0;
    int last = 0;
    EVP_CipherInit_ex(context, EVP_aes_256_cbc(), nullptr, kKey,
                      reinterpret_cast<const unsigned char*>(iv.data()), 1);
    EVP_CipherUpdate(context, bytes, &size, reinterpret_cast<const unsigned char*>(plain.data()),
                     static_cast<int>(plain.size()));
    EVP_CipherFinal_ex(context, bytes + size, &last);
    EVP_CIPHER_CTX_free(context);
    cipher.resize(static_cast<size_t>(size + last));
    return iv + cipher + std::string(kTrailer, 't');
}

// What the daemon has asked of the library.
struct Asked {
    std::optional<std::string> header; // as the library may read it: a text
    std::optional<std::string> payload;
    bool isPayloadReadable = true;
};

FWUpdateSymbol& moduleWith(const Answers& answers, Asked& asked)
{
    static FWUpdateSymbol module("tuner");
    module.isEMP = true;
    module.firmwareName = "Tuner";
    module.needUpdate = false;
    SYMFunction& functions = module.functions;
    functions.setContext = [](const char*, FWUpdateCallerTypes, char*) { return 0; };
    functions.checkVersion = [answers, &asked](const char* version, int* verdict) {
        asked.header = std::string(version); // up to its terminator, which has to be there
        *verdict = answers.verdict;
        return answers.versionResult;
    };
    functions.getExpectedTime = [answers](int* time) {
        *time = answers.time;
        return answers.timeResult;
    };
    functions.doUpdate_decryption = [answers, &asked](const unsigned char* data, int length) {
        asked.isPayloadReadable = length > 0;
        asked.payload =
            std::string(reinterpret_cast<const char*>(data), static_cast<size_t>(std::max(length, 0)));
        return answers.result;
    };
    return module;
}

void run(std::string_view input)
{
    fuzz::Reader reader(input);
    const bool isOurs = reader.flag(); // else the file itself is what the input says
    const Answers answers{static_cast<int8_t>(reader.byte()), reader.byte() % 3 - 1,
                          static_cast<int>(reader.number()), reader.byte() % 2, reader.byte() % 3 - 1};
    const std::string plain(reader.rest());
    const std::string path = fuzz::fileWith("Tuner.bin", isOurs ? encrypted(plain) : plain);
    const std::string directory = path.substr(0, path.rfind('/') + 1);

    Asked asked;
    FWUpdateSymbol& module = moduleWith(answers, asked);
    const int need = module.getNeedUpdateList(kKey, directory.c_str());
    const std::string header = asked.header.value_or("");
    fuzz::require(header.size() <= kHeaderSize, "a header is no longer than it is");
    if (isOurs && asked.header && plain.size() >= kHeaderSize) {
        fuzz::require(header == plain.substr(0, kHeaderSize).c_str(),
                      "the library judges what was encrypted");
    }
    fuzz::require(need != 0 || answers.verdict == 0 || answers.timeResult != 0,
                  "the verdict is the library's");
    free(cipher_buf_all.exchange(nullptr));

    const int result = module.updateUSB(kKey, directory.c_str());
    const bool isWanted = answers.versionResult == 0 && answers.verdict > 0;
    fuzz::require(!asked.payload || isWanted, "nothing is written that the library did not want");
    fuzz::require(result == -1 || result == answers.result, "a result is the library's, or a failure");
    if (isOurs && isWanted && plain.size() > kHeaderSize) {
        fuzz::require(asked.payload == plain.substr(kHeaderSize), "what is written is what was encrypted");
    }
    free(cipher_buf_all.exchange(nullptr));
    fwmod::takeDaemonLog();
}

const fuzz::Target target("usb-image", run);

} // namespace
