// Encrypted images on a USB stick: signature, decryption, probe and installation.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <malloc.h>
#include <memory>
#include <numeric>
#include <openssl/evp.h>
#include <random>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "src/src/fw-update-symbol.h"
#include "tests/support/set-test.h"
#include "tests/support/signature-set.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace
{

bool isCipherRefused = false;
bool isContextRefused = false;
int openCiphers = 0;

template <typename Function>
Function* real(Function*, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

// libcrypto without memory, or without its default provider.
extern "C" int EVP_CipherInit_ex(EVP_CIPHER_CTX* context, const EVP_CIPHER* type, ENGINE* engine,
                                 const unsigned char* key, const unsigned char* iv, int enc)
{
    static auto* const init = real(&EVP_CipherInit_ex, "EVP_CipherInit_ex");
    return isCipherRefused ? 0 : init(context, type, engine, key, iv, enc);
}

extern "C" EVP_CIPHER_CTX* EVP_CIPHER_CTX_new()
{
    static auto* const make = real(&EVP_CIPHER_CTX_new, "EVP_CIPHER_CTX_new");
    if (isContextRefused) {
        return nullptr;
    }
    ++openCiphers;
    return make();
}

extern "C" void EVP_CIPHER_CTX_free(EVP_CIPHER_CTX* context)
{
    static auto* const release = real(&EVP_CIPHER_CTX_free, "EVP_CIPHER_CTX_free");
    --openCiphers;
    release(context);
}

namespace
{

constexpr size_t kIvSize = 16;
constexpr size_t kHeaderSize = 64;
constexpr size_t kTrailerSize = 534;

const std::string kDirectory = "/opt/media/";
const std::string kImage = "/opt/media/Tuner.bin";

const LogLine kNoSignatureLibrary =
    error("[zor][UserCaller] pHandle Error: /usr/lib/libkZORUser.so: cannot open shared object file: "
          "No such file or directory\n");
const LogLine kUpdateStart = error("========== [ Tuner update start ] ==========");
const LogLine kUpdateSucceeded = error("========== [ Tuner update succeeded ] ==========");

// ---- Reference ----

std::string randomBytes(size_t count, unsigned int seed)
{
    std::mt19937 generator(seed);
    std::string bytes(count, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(generator()); });
    return bytes;
}

const std::string kKeyBytes = randomBytes(32, 1);
const std::string kIv = randomBytes(kIvSize, 2);
const auto* const kKey = reinterpret_cast<const unsigned char*>(kKeyBytes.data());

// The cipher over all the bytes in one piece. A failed last block adds nothing.
std::string cipher(const std::string& input, bool isEncrypting, const std::string& iv = kIv)
{
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                  &EVP_CIPHER_CTX_free);
    std::vector<unsigned char> output(input.size() + EVP_MAX_BLOCK_LENGTH);
    int length = 0;
    int last = 0;
    EVP_CipherInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, kKey,
                      reinterpret_cast<const unsigned char*>(iv.data()), isEncrypting ? 1 : 0);
    EVP_CipherUpdate(context.get(), output.data(), &length,
                     reinterpret_cast<const unsigned char*>(input.data()), static_cast<int>(input.size()));
    if (EVP_CipherFinal_ex(context.get(), output.data() + length, &last) != 1) {
        last = 0;
    }
    return {output.begin(), output.begin() + length + last};
}

std::string header(const std::string& version)
{
    return version + std::string(kHeaderSize - version.size(), '\0');
}

std::string encryptedImage(const std::string& plain)
{
    return kIv + cipher(plain, true) + randomBytes(kTrailerSize, 3);
}

// ---- The cipher over a stream ----

class AesStream : public testing::Test
{
protected:
    struct Output {
        std::string bytes; // the used ones
        unsigned char* buffer;
    };

    struct RawOutput {
        unsigned char* buffer;
        int length;
    };
    static constexpr int kUntouched = -4711;

    static RawOutput runRaw(const std::string& stream, int total, bool isEncrypting = false)
    {
        const std::unique_ptr<FILE, int (*)(FILE*)> file(tmpfile(), &fclose);
        fwrite(stream.data(), 1, stream.size(), file.get());
        rewind(file.get());
        int length = kUntouched;
        unsigned char* const buffer =
            aes_256_cbc_all(file.get(), kKey, reinterpret_cast<const unsigned char*>(kIv.data()),
                            isEncrypting ? 1 : 0, total, length);
        return {buffer, length};
    }
    static Output run(const std::string& stream, int total, bool isEncrypting)
    {
        const RawOutput output = runRaw(stream, total, isEncrypting);
        return {std::string(output.buffer, output.buffer + output.length), output.buffer};
    }
    // The bytes that are to be fed of a stream.
    static std::string body(const std::string& stream, int total)
    {
        const int limit = std::max(total - static_cast<int>(kTrailerSize), 0);
        return stream.substr(0, static_cast<size_t>(limit));
    }
};

std::vector<int> streamSizes()
{
    std::vector<int> sizes = {0, 1, 15, 16, 17, 64, 100, 613, 614};
    const auto addRange = [&](int from, int to) {
        sizes.resize(sizes.size() + static_cast<size_t>(to - from + 1));
        std::iota(sizes.end() - (to - from + 1), sizes.end(), from);
    };
    addRange(533, 551);
    // Around the borders of the chunks, with the trailer behind, across and before them.
    for (const int border : {10240, 20480}) {
        addRange(border - 2, border + 2);
        addRange(border + 530, border + 551);
    }
    sizes.insert(sizes.end(), {10240 + 200, 30720 + 534, 1000000});
    return sizes;
}

TEST_F(AesStream, DecryptsAllButTheTrailer)
{
    for (const int size : streamSizes()) {
        const std::string stream = randomBytes(static_cast<size_t>(size), 4);
        EXPECT_EQ(run(stream, size, false).bytes, cipher(body(stream, size), false)) << size;
    }
}

TEST_F(AesStream, EncryptsAllButTheTrailer)
{
    for (const int size : streamSizes()) {
        const std::string stream = randomBytes(static_cast<size_t>(size), 5);
        EXPECT_EQ(run(stream, size, true).bytes, cipher(body(stream, size), true)) << size;
    }
}

TEST_F(AesStream, FeedsNothingBehindTheLimitOfALongerStream)
{
    for (const int size : streamSizes()) {
        const std::string stream = randomBytes(static_cast<size_t>(size) + 25000, 6);
        EXPECT_EQ(run(stream, size, false).bytes, cipher(body(stream, size), false)) << size;
    }
}

TEST_F(AesStream, FeedsWhatThereIsOfAShorterStream)
{
    for (const int size : streamSizes()) {
        const std::string stream = randomBytes(static_cast<size_t>(size), 7);
        EXPECT_EQ(run(stream, size + 12000, false).bytes, cipher(stream, false)) << size;
    }
}

TEST_F(AesStream, KeepsItsOutputAsTheLatest)
{
    const Output first = run(randomBytes(1000, 8), 1000, false);
    EXPECT_EQ(cipher_buf_all, first.buffer);
    const std::string kept(first.buffer, first.buffer + first.bytes.size());
    const Output second = run(randomBytes(1000, 9), 1000, false);
    EXPECT_EQ(cipher_buf_all, second.buffer);
    EXPECT_NE(first.buffer, second.buffer);
    EXPECT_EQ(std::string(first.buffer, first.buffer + first.bytes.size()), kept);
}

TEST_F(AesStream, ZeroesTheHeaderOfAShortStream)
{
    const Output output = run("", 0, false);
    EXPECT_EQ(output.bytes, "");
    EXPECT_EQ(std::string(output.buffer, output.buffer + kHeaderSize), header(""));
    EXPECT_GE(malloc_usable_size(output.buffer), kHeaderSize + EVP_MAX_BLOCK_LENGTH); // a block may follow
}

// A size below zero cannot be allocated.
TEST_F(AesStream, RefusesATotalBelowZeroAndLeavesTheLengthAlone)
{
    for (const int total : {-1, -16, std::numeric_limits<int>::min()}) {
        EXPECT_EQ(runRaw(randomBytes(1000, 10), total).buffer, nullptr) << total;
        EXPECT_EQ(runRaw(randomBytes(1000, 10), total).length, kUntouched) << total;
    }
}

TEST_F(AesStream, IsNullWhenTheCipherCannotBeInitialised)
{
    isCipherRefused = true;
    const RawOutput output = runRaw(randomBytes(1000, 10), 1000);
    isCipherRefused = false;
    EXPECT_EQ(output.buffer, nullptr);
    EXPECT_EQ(output.length, kUntouched);
    EXPECT_EQ(openCiphers, 0);
}

TEST_F(AesStream, IsNullWithoutMemoryForTheCipher)
{
    isContextRefused = true;
    const RawOutput output = runRaw(randomBytes(1000, 10), 1000);
    isContextRefused = false;
    EXPECT_EQ(output.buffer, nullptr);
    EXPECT_EQ(output.length, kUntouched);
}

TEST_F(AesStream, GivesItsCipherBack)
{
    run(randomBytes(1000, 10), 1000, false);
    EXPECT_EQ(openCiphers, 0);
}

TEST_F(AesStream, StartsAtTheCurrentPosition)
{
    const std::string stream = randomBytes(2000, 11);
    const std::unique_ptr<FILE, int (*)(FILE*)> file(tmpfile(), &fclose);
    fwrite(stream.data(), 1, stream.size(), file.get());
    fseek(file.get(), 500, SEEK_SET);
    int length = -1;
    const unsigned char* const buffer = aes_256_cbc_all(
        file.get(), kKey, reinterpret_cast<const unsigned char*>(kIv.data()), 0, 1500, length);
    EXPECT_EQ(std::string(buffer, buffer + length), cipher(stream.substr(500, 1500 - kTrailerSize), false));
}

// ---- Signature ----

class Signature : public SetTest
{
protected:
    static bool isLibraryLoaded()
    {
        void* const library = dlopen("/usr/lib/libkZORUser.so", RTLD_LAZY | RTLD_NOLOAD);
        return library != nullptr && dlclose(library) == 0;
    }
};

TEST_F(Signature, OfAnyFileIsGoodWithoutTheLibrary)
{
    EXPECT_EQ(zor_verify("/tmp/image.bin"), 1);
    EXPECT_THAT(platform.log(), ElementsAre(kNoSignatureLibrary));
}

TEST_F(Signature, IsLookedForAgainWhenTheLibraryWasMissing)
{
    zor_verify("/tmp/image.bin");
    EXPECT_EQ(zor_verify("/tmp/image.bin"), 1);
    EXPECT_THAT(platform.log(), ElementsAre(kNoSignatureLibrary, kNoSignatureLibrary));
}

TEST_F(Signature, IsJudgedByTheLibrary)
{
    EXPECT_TRUE(runWithSignatureLibrary("signature", [&] {
        EXPECT_EQ(zor_verify("/tmp/image.bin"), 1);
        EXPECT_STREQ(signatureRecorder().path, "/tmp/image.bin");
        EXPECT_STREQ(signatureRecorder().caller, "UserCaller");
        EXPECT_EQ(signatureRecorder().mode, 0);
        EXPECT_THAT(
            platform.log(),
            ElementsAre(error("[zor][UserCaller] the file is signed successfully : /tmp/image.bin\n")));
    }));
}

TEST_F(Signature, KeepsTheLibrarysNumber)
{
    EXPECT_TRUE(runWithSignatureLibrary("signature", [&] {
        signatureRecorder().answer = -5;
        EXPECT_EQ(zor_verify("/tmp/image.bin"), -5);
        EXPECT_THAT(
            platform.log(),
            ElementsAre(error("[zor][UserCaller] the file is signed successfully : /tmp/image.bin\n")));
    }));
}

TEST_F(Signature, ThatIsWrongIsRefused)
{
    EXPECT_TRUE(runWithSignatureLibrary("signature", [&] {
        signatureRecorder().answer = 0;
        EXPECT_EQ(zor_verify("/tmp/image.bin"), 0);
        EXPECT_THAT(platform.log(),
                    ElementsAre(error("[zor][UserCaller] the file is NOT signed!! : /tmp/image.bin\n")));
    }));
}

TEST_F(Signature, IsJudgedAgainByTheSameLibrary)
{
    EXPECT_TRUE(runWithSignatureLibrary("signature", [&] {
        EXPECT_EQ(zor_verify("/tmp/a.bin"), 1);
        fs::remove("/usr/lib/libkZORUser.so"); // it is loaded already
        EXPECT_EQ(zor_verify("/tmp/b.bin"), 1);
        EXPECT_THAT(platform.log(),
                    ElementsAre(error("[zor][UserCaller] the file is signed successfully : /tmp/a.bin\n"),
                                error("[zor][UserCaller] the file is signed successfully : /tmp/b.bin\n")));
    }));
}

TEST_F(Signature, OfAnyFileIsGoodWithALibraryWithoutTheEntryPoint)
{
    EXPECT_TRUE(runWithSignatureLibrary("signature-without-entry", [&] {
        const LogLine message = error("[zor][UserCaller] dlsym Error: /usr/lib/libkZORUser.so: undefined "
                                      "symbol: verifyFile\n");
        EXPECT_EQ(zor_verify("/tmp/image.bin"), 1);
        EXPECT_EQ(zor_verify("/tmp/image.bin"), 1);
        EXPECT_THAT(platform.log(), ElementsAre(message, message));
        EXPECT_FALSE(isLibraryLoaded());
    }));
}

TEST_F(Signature, OfAnyFileIsGoodWithAnEntryPointAtTheAddressNull)
{
    EXPECT_TRUE(runWithSignatureLibrary("signature-null-entry", [&] {
        EXPECT_EQ(zor_verify("/tmp/image.bin"), 1);
        EXPECT_THAT(platform.log(), ElementsAre(error("[zor][UserCaller] dlsym Error: null address\n")));
        EXPECT_FALSE(isLibraryLoaded());
    }));
}

TEST_F(Signature, IsFoundOnceTheLibraryIsThere)
{
    zor_verify("/tmp/image.bin");
    EXPECT_TRUE(runWithSignatureLibrary("signature", [&] {
        signatureRecorder().answer = 0;
        EXPECT_EQ(zor_verify("/tmp/image.bin"), 0);
    }));
}

// ---- Images of a module ----

class FWUpdateSymbolUsb : public SetTest
{
protected:
    void SetUp() override
    {
        SetTest::SetUp();
        recorder = &installControl("tuner");
        ASSERT_EQ(module.loadSymbol("tuner"), 0);
        recorder->clearCalls();
        recorder->answers.expectedTime = 55;
        module.expectedUpdateTime = 4711;
        module.needUpdate = true;
        platform.clearLog();
    }

    // Without its first line, which tells that there is no signature library.
    std::vector<LogLine> logAfterSignature() const
    {
        std::vector<LogLine> log = platform.log();
        EXPECT_FALSE(log.empty());
        EXPECT_EQ(log.at(0), kNoSignatureLibrary);
        log.erase(log.begin());
        return log;
    }
    void expectFieldsUnchanged() const
    {
        EXPECT_TRUE(module.getNeedUpdate());
        EXPECT_EQ(module.getExpectedUpdateTime(), 4711u);
    }
    static std::ptrdiff_t openFiles()
    {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    }

    ControlRecorder* recorder = nullptr;
    FWUpdateSymbol module{"tuner"};
};

// Both operations open an image the same way, in different words.
struct UsbOperation {
    const char* name;
    int (FWUpdateSymbol::*run)(const unsigned char*, const char*);
    const char* notOpened;
    const char* notSigned;
};

void PrintTo(const UsbOperation& one, std::ostream* out)
{
    *out << one.name;
}

class FWUpdateSymbolUsbOpen : public FWUpdateSymbolUsb, public testing::WithParamInterface<UsbOperation>
{
protected:
    int run(const unsigned char* key = kKey, const char* directory = kDirectory.c_str())
    {
        return (module.*GetParam().run)(key, directory);
    }
};

TEST_P(FWUpdateSymbolUsbOpen, WithoutAKeyFails)
{
    writeFile(kImage, encryptedImage(header("1.2")));
    EXPECT_EQ(run(nullptr), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: ckey  is nullptr")));
    EXPECT_THAT(recorder->calls(), IsEmpty());
}

TEST_P(FWUpdateSymbolUsbOpen, WithoutADirectoryFails)
{
    EXPECT_EQ(run(kKey, nullptr), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: image_path is nullptr")));
}

TEST_P(FWUpdateSymbolUsbOpen, WithoutEitherComplainsOfTheKey)
{
    EXPECT_EQ(run(nullptr, nullptr), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: ckey  is nullptr")));
}

TEST_P(FWUpdateSymbolUsbOpen, OfAMissingImageFails)
{
    EXPECT_EQ(run(), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: " + kImage + GetParam().notOpened)));
    EXPECT_THAT(recorder->calls(), IsEmpty());
}

TEST_P(FWUpdateSymbolUsbOpen, DoesNotCompleteADirectoryWithoutItsSlash)
{
    writeFile(kImage, encryptedImage(header("1.2")));
    EXPECT_EQ(run(kKey, "/opt/media"), -1);
    EXPECT_THAT(platform.log(),
                ElementsAre(error(std::string("Error: /opt/mediaTuner.bin") + GetParam().notOpened)));
}

TEST_P(FWUpdateSymbolUsbOpen, TakesWhatIsNamedAfterADirectoryWithoutItsSlash)
{
    writeFile("/opt/media/stickTuner.bin", encryptedImage(header("1.2")));
    run(kKey, "/opt/media/stick");
    EXPECT_EQ(recorder->calls().at(1), R"(checkVersion("1.2"))");
}

TEST_P(FWUpdateSymbolUsbOpen, OfAFifoFailsAtOnce)
{
    ASSERT_EQ(mkfifo(kImage.c_str(), 0600), 0);
    EXPECT_EQ(run(), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: " + kImage + GetParam().notOpened)));
}

TEST_P(FWUpdateSymbolUsbOpen, OfALinkToADeviceFails)
{
    fs::create_symlink("/dev/zero", kImage);
    EXPECT_EQ(run(), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Error: " + kImage + GetParam().notOpened)));
}

TEST_P(FWUpdateSymbolUsbOpen, KeepsTheImageFromAProgramThatTheLibraryStarts)
{
    writeFile(kImage, encryptedImage(header("1.2")));
    int flags = 0;
    recorder->answers.onCall = [&](const std::string& function) {
        for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code closedMeanwhile;
            if (function == "setContext" && fs::read_symlink(entry.path(), closedMeanwhile) == kImage) {
                flags = fcntl(std::stoi(entry.path().filename()), F_GETFD);
            }
        }
    };
    run();
    EXPECT_EQ(flags, FD_CLOEXEC);
}

// Handed to the library, a length beyond what an int holds would be another one.
TEST_P(FWUpdateSymbolUsbOpen, OfAnImageThatIsTooLargeForALengthFails)
{
    const std::vector<LogLine> said = GetParam().run == &FWUpdateSymbol::updateUSB
                                          ? std::vector{error("Error: Decryption data is null")}
                                          : std::vector<LogLine>{};
    for (const uintmax_t size : {uintmax_t{1} << 31, uintmax_t{3} << 30, uintmax_t{5} << 30}) {
        platform.clearLog();
        recorder->clearCalls();
        writeFile(kImage, encryptedImage(header("1.2")));
        fs::resize_file(kImage, size); // takes no room
        EXPECT_EQ(run(), -1) << size;
        EXPECT_EQ(logAfterSignature(), said) << size;
        EXPECT_THAT(recorder->calls(), ElementsAre(R"(setContext("tuner", 3, ""))")) << size;
    }
    expectFieldsUnchanged();
}

TEST_P(FWUpdateSymbolUsbOpen, OfADirectoryFindsNoVector)
{
    fs::create_directory(kImage);
    EXPECT_EQ(run(), -1);
    EXPECT_THAT(logAfterSignature(), ElementsAre(error("Error: iv is worng")));
}

TEST_P(FWUpdateSymbolUsbOpen, SaysWhoAsksBeforeItReads)
{
    writeFile(kImage, "");
    recorder->answers.results["setContext"] = -1; // not looked at
    EXPECT_EQ(run(), -1);
    EXPECT_THAT(recorder->calls(), ElementsAre(R"(setContext("tuner", 3, ""))"));
    EXPECT_THAT(logAfterSignature(), ElementsAre(error("Error: iv is worng")));
}

TEST_P(FWUpdateSymbolUsbOpen, OfAnUnsignedImageFailsBeforeTheLibraryHearsOfIt)
{
    writeFile(kImage, encryptedImage(header("1.2")));
    EXPECT_TRUE(runWithSignatureLibrary("signature", [&] {
        signatureRecorder().answer = 0;
        EXPECT_EQ(run(), -1);
        EXPECT_THAT(platform.log(),
                    ElementsAre(error("[zor][UserCaller] the file is NOT signed!! : " + kImage + "\n"),
                                error("Error: " + kImage + GetParam().notSigned)));
        EXPECT_THAT(recorder->calls(), IsEmpty());
        EXPECT_STREQ(signatureRecorder().path, kImage.c_str());
    }));
}

TEST_P(FWUpdateSymbolUsbOpen, OfAnImageThatTheLibraryRejectsFails)
{
    writeFile(kImage, encryptedImage(header("1.2") + "payload"));
    recorder->answers.results["checkVersion"] = 7;
    EXPECT_EQ(run(), -1);
    EXPECT_THAT(logAfterSignature(), ElementsAre(error("Error: Tuner Firmware CheckVersion Fail")));
    EXPECT_THAT(recorder->calls(), ElementsAre(R"(setContext("tuner", 3, ""))", R"(checkVersion("1.2"))"));
    expectFieldsUnchanged();
}

TEST_P(FWUpdateSymbolUsbOpen, GivesAHeaderOf64BytesWithATerminator)
{
    const std::string version(kHeaderSize, 'v');
    writeFile(kImage, encryptedImage(version + "payload"));
    run();
    EXPECT_EQ(recorder->calls().at(1), "checkVersion(\"" + version + "\")");
}

TEST_P(FWUpdateSymbolUsbOpen, WithAWrongKeyLeavesTheVerdictToTheLibrary)
{
    writeFile(kImage, encryptedImage(header("1.2") + std::string(100, 'p')));
    const std::string wrong(32, 'k');
    recorder->answers.results["checkVersion"] = 1;
    EXPECT_EQ(run(reinterpret_cast<const unsigned char*>(wrong.data())), -1);
    EXPECT_THAT(logAfterSignature(), ElementsAre(error("Error: Tuner Firmware CheckVersion Fail")));
    EXPECT_NE(recorder->calls().at(1), R"(checkVersion("1.2"))");
}

// The decryption is checked byte for byte above; here each size must be borne, and short of its vector told.
TEST_P(FWUpdateSymbolUsbOpen, BearsAnImageThatIsCutAnywhere)
{
    const std::string whole = encryptedImage(header("1.2") + std::string(60, 'p'));
    for (size_t size = 0; size <= whole.size(); ++size) {
        writeFile(kImage, whole.substr(0, size));
        platform.clearLog();
        recorder->clearCalls();
        run();
        const bool isTold = logAfterSignature() == std::vector<LogLine>{error("Error: iv is worng")};
        EXPECT_EQ(isTold, size < kIvSize) << size;
        EXPECT_EQ(recorder->calls().size() > 1, size >= kIvSize) << size;
    }
}

TEST_P(FWUpdateSymbolUsbOpen, ClosesTheImageOnEveryExit)
{
    const std::ptrdiff_t before = openFiles();
    for (const std::string& content : {std::string(), std::string(16, 'i'), encryptedImage(header("1.2"))}) {
        writeFile(kImage, content);
        run();
        EXPECT_EQ(openFiles(), before);
    }
    recorder->answers.results["checkVersion"] = 1;
    run();
    EXPECT_EQ(openFiles(), before);
}

// What a library sees in doUpdate: nothing of the image is open any more.
TEST_P(FWUpdateSymbolUsbOpen, ClosesTheImageBeforeTheLibraryIsAsked)
{
    writeFile(kImage, encryptedImage(header("1.2")));
    const std::ptrdiff_t before = openFiles();
    std::ptrdiff_t during = 0;
    recorder->answers.onCall = [&](const std::string& function) {
        during = function == "checkVersion" ? openFiles() : during;
    };
    run();
    EXPECT_EQ(during, before);
}

INSTANTIATE_TEST_SUITE_P(OfBothOperations, FWUpdateSymbolUsbOpen,
                         testing::Values(UsbOperation{"getNeedUpdateList", &FWUpdateSymbol::getNeedUpdateList,
                                                      " open fail", " is NOT signed "},
                                         UsbOperation{"updateUSB", &FWUpdateSymbol::updateUSB, " file open",
                                                      " file is NOT signed "}),
                         [](const auto& one) { return std::string(one.param.name); });

// ---- Probe ----

class FWUpdateSymbolUsbProbe : public FWUpdateSymbolUsb
{
protected:
    int probe() { return module.getNeedUpdateList(kKey, kDirectory.c_str()); }
};

TEST_F(FWUpdateSymbolUsbProbe, OfANewerImageMakesTheModulePending)
{
    module.needUpdate = false;
    writeFile(kImage, encryptedImage(header("1.2") + "payload"));
    EXPECT_EQ(probe(), 1);
    EXPECT_TRUE(module.getNeedUpdate());
    EXPECT_EQ(module.getExpectedUpdateTime(), 55u);
    EXPECT_THAT(logAfterSignature(), IsEmpty());
    EXPECT_THAT(recorder->calls(),
                ElementsAre(R"(setContext("tuner", 3, ""))", R"(checkVersion("1.2"))", "getExpectedTime()"));
}

TEST_F(FWUpdateSymbolUsbProbe, OfAnExternalModuleIsSilentlyRefused)
{
    module.isEMP = false;
    writeFile(kImage, encryptedImage(header("1.2")));
    EXPECT_EQ(probe(), -1);
    EXPECT_EQ(module.getNeedUpdateList(nullptr, nullptr), -1);
    EXPECT_THAT(platform.log(), IsEmpty());
    expectFieldsUnchanged();
}

struct NeedCase {
    std::optional<int> need;
    int result;
    bool isPending;
};

void PrintTo(const NeedCase& one, std::ostream* out)
{
    *out << (one.need ? std::to_string(*one.need) : "none");
}

class FWUpdateSymbolUsbNeed : public FWUpdateSymbolUsbProbe, public testing::WithParamInterface<NeedCase>
{
};

TEST_P(FWUpdateSymbolUsbNeed, IsReturnedAndMarksAnythingButZero)
{
    module.needUpdate = !GetParam().isPending;
    writeFile(kImage, encryptedImage(header("1.2")));
    recorder->answers.verdict = GetParam().need;
    EXPECT_EQ(probe(), GetParam().result);
    EXPECT_EQ(module.getNeedUpdate(), GetParam().isPending);
    EXPECT_EQ(module.getExpectedUpdateTime(), 55u);
}

// A library that leaves the number alone leaves -1.
INSTANTIATE_TEST_SUITE_P(Numbers, FWUpdateSymbolUsbNeed,
                         testing::Values(NeedCase{1, 1, true}, NeedCase{2, 2, true}, NeedCase{0, 0, false},
                                         NeedCase{-1, -1, true}, NeedCase{-2, -2, true},
                                         NeedCase{std::nullopt, -1, true}));

TEST_F(FWUpdateSymbolUsbProbe, WithoutAnExpectedTimeIsNotNeededAndChangesNothing)
{
    writeFile(kImage, encryptedImage(header("1.2")));
    recorder->answers.results["getExpectedTime"] = 5;
    EXPECT_EQ(probe(), 0);
    EXPECT_THAT(logAfterSignature(), ElementsAre(error("Error: Tuner getExpectedTime Fail")));
    expectFieldsUnchanged();
}

TEST_F(FWUpdateSymbolUsbProbe, OfALibraryThatTellsNoTimeIsNotNeeded)
{
    module.functions.getExpectedTime = nullptr;
    writeFile(kImage, encryptedImage(header("1.2")));
    EXPECT_EQ(probe(), 0);
    EXPECT_THAT(logAfterSignature(), ElementsAre(error("Error: Tuner getExpectedTime Fail")));
}

// The stretch that is probed is 16 bytes longer than the ciphertext, which shows in a content below 64 bytes
// only: its padding is taken for content.
TEST_F(FWUpdateSymbolUsbProbe, DecryptsTheWholeSizeIntoTheTrailer)
{
    const std::string image = encryptedImage(std::string(40, 'v'));
    writeFile(kImage, image);
    probe();
    EXPECT_EQ(recorder->calls().at(1),
              "checkVersion(\"" + std::string(40, 'v') + std::string(8, '\b') + "\")");
}

TEST_F(FWUpdateSymbolUsbProbe, OfALongImageGivesItsHeader)
{
    writeFile(kImage, encryptedImage(header("1.2") + randomBytes(300000, 12)));
    EXPECT_EQ(probe(), 1);
    EXPECT_EQ(recorder->calls().at(1), R"(checkVersion("1.2"))");
}

TEST_F(FWUpdateSymbolUsbProbe, InstallsNothing)
{
    writeFile(kImage, encryptedImage(header("1.2") + "payload"));
    probe();
    EXPECT_THAT(recorder->decryptedPayloads(), IsEmpty());
}

// ---- Installation ----

class FWUpdateSymbolUsbUpdate : public FWUpdateSymbolUsb
{
protected:
    int update() { return module.updateUSB(kKey, kDirectory.c_str()); }
};

TEST_F(FWUpdateSymbolUsbUpdate, GivesTheLibraryThePayload)
{
    writeFile(kImage, encryptedImage(header("1.2") + "payload"));
    EXPECT_EQ(update(), 0);
    EXPECT_THAT(recorder->decryptedPayloads(), ElementsAre("payload"));
    EXPECT_THAT(recorder->calls(), ElementsAre(R"(setContext("tuner", 3, ""))", R"(checkVersion("1.2"))",
                                               "doUpdate_decryption(7)"));
    EXPECT_THAT(logAfterSignature(), ElementsAre(kUpdateStart, kUpdateSucceeded));
}

TEST_F(FWUpdateSymbolUsbUpdate, ChangesNoFieldAndReadsNone)
{
    module.needUpdate = false;
    writeFile(kImage, encryptedImage(header("1.2") + "payload"));
    EXPECT_EQ(update(), 0);
    EXPECT_FALSE(module.getNeedUpdate());
    EXPECT_EQ(module.getExpectedUpdateTime(), 4711u);
}

TEST_F(FWUpdateSymbolUsbUpdate, LeavesTheImageWhereItIs)
{
    writeFile(kImage, encryptedImage(header("1.2") + "payload"));
    update();
    EXPECT_TRUE(exists(kImage));
}

class FWUpdateSymbolUsbPayload : public FWUpdateSymbolUsbUpdate, public testing::WithParamInterface<int>
{
};

TEST_P(FWUpdateSymbolUsbPayload, ComesThroughWhole)
{
    const std::string payload = randomBytes(static_cast<size_t>(GetParam()), 13);
    writeFile(kImage, encryptedImage(header("1.2") + payload));
    EXPECT_EQ(update(), 0);
    EXPECT_THAT(recorder->decryptedPayloads(), ElementsAre(payload));
}

INSTANTIATE_TEST_SUITE_P(OfSize, FWUpdateSymbolUsbPayload,
                         testing::Values(0, 1, 15, 16, 17, 9600, 9631, 9632, 9633, 10095, 10096, 10160, 10175,
                                         10176, 10177, 10240, 20416, 1000000));

TEST_F(FWUpdateSymbolUsbUpdate, OfContentBelowAHeaderGivesALengthBelowZero)
{
    writeFile(kImage, encryptedImage("1.2"));
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(recorder->calls().at(1), R"(checkVersion("1.2"))");
    EXPECT_EQ(recorder->calls().at(2), "doUpdate_decryption(-61)");
}

TEST_F(FWUpdateSymbolUsbUpdate, OfAnImageWithoutCiphertextGivesAnEmptyHeader)
{
    writeFile(kImage, kIv + std::string(100, 't'));
    EXPECT_EQ(update(), 0);
    EXPECT_EQ(recorder->calls().at(1), R"(checkVersion(""))");
    EXPECT_EQ(recorder->calls().at(2), "doUpdate_decryption(-64)");
}

class FWUpdateSymbolUsbDeclined : public FWUpdateSymbolUsbUpdate,
                                  public testing::WithParamInterface<std::optional<int>>
{
};

TEST_P(FWUpdateSymbolUsbDeclined, IsNotInstalled)
{
    writeFile(kImage, encryptedImage(header("1.2") + "payload"));
    recorder->answers.verdict = GetParam();
    EXPECT_EQ(update(), -1);
    EXPECT_THAT(logAfterSignature(), ElementsAre(error("Error: Tuner Firmware not need update")));
    EXPECT_THAT(recorder->decryptedPayloads(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Needs, FWUpdateSymbolUsbDeclined,
                         testing::Values(std::optional<int>(0), std::optional<int>(-1),
                                         std::optional<int>(-2), std::optional<int>()));

TEST_F(FWUpdateSymbolUsbUpdate, IsInstalledWithANeedAbove1)
{
    writeFile(kImage, encryptedImage(header("1.2") + "payload"));
    recorder->answers.verdict = 2;
    EXPECT_EQ(update(), 0);
}

TEST_F(FWUpdateSymbolUsbUpdate, ThatTheLibraryFailsReturnsItsResult)
{
    writeFile(kImage, encryptedImage(header("1.2") + "payload"));
    recorder->answers.results["doUpdate_decryption"] = 9;
    recorder->answers.error = EIO;
    EXPECT_EQ(update(), 9);
    EXPECT_THAT(
        logAfterSignature(),
        ElementsAre(kUpdateStart, error("Error: Tuner Firmware doUpdate Fail 9 (5:Input/output error)")));
}

TEST_F(FWUpdateSymbolUsbUpdate, AnnouncesTheInstallationBeforeItBegins)
{
    writeFile(kImage, encryptedImage(header("1.2") + "payload"));
    std::vector<LogLine> before;
    recorder->answers.onCall = [&](const std::string& function) {
        before = function == "doUpdate_decryption" ? platform.log() : before;
    };
    update();
    EXPECT_THAT(before, ElementsAre(kNoSignatureLibrary, kUpdateStart));
}

// Here only the call into the library asks what the module is.
TEST_F(FWUpdateSymbolUsbUpdate, OfAnExternalModuleFailsAtTheInstallation)
{
    module.isEMP = false;
    writeFile(kImage, encryptedImage(header("1.2") + "payload"));
    EXPECT_EQ(update(), -1);
    EXPECT_EQ(logAfterSignature().at(0), kUpdateStart);
    EXPECT_THAT(logAfterSignature().at(1).text, StartsWith("Error: Tuner Firmware doUpdate Fail -1 ("));
    EXPECT_THAT(recorder->decryptedPayloads(), IsEmpty());
}

TEST_F(FWUpdateSymbolUsbUpdate, OfALibraryWithoutTheEntryPointFailsAtTheInstallation)
{
    module.functions.doUpdate_decryption = nullptr;
    writeFile(kImage, encryptedImage(header("1.2") + "payload"));
    EXPECT_EQ(update(), -1);
    EXPECT_THAT(logAfterSignature().at(1).text, StartsWith("Error: Tuner Firmware doUpdate Fail -1 ("));
}

TEST_F(FWUpdateSymbolUsbUpdate, OfASignedImageProceeds)
{
    writeFile(kImage, encryptedImage(header("1.2") + "payload"));
    EXPECT_TRUE(runWithSignatureLibrary("signature", [&] {
        EXPECT_EQ(update(), 0);
        EXPECT_THAT(platform.log(),
                    ElementsAre(error("[zor][UserCaller] the file is signed successfully : " + kImage + "\n"),
                                kUpdateStart, kUpdateSucceeded));
    }));
}

} // namespace
