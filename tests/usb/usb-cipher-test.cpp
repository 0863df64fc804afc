// The decryption of a stream: against vectors that others made, against the same cipher over the whole input
// at once for every size that could matter, and with streams that fail under it.
#include <cstdlib>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/files/owned-file.h"
#include "common/files/whole-file.h"
#include "src/src/fw-update-symbol.h"
#include "tests/support/temporary-directory.h"
#include "tests/usb/programs.h"
#include "tests/usb/usb-test-data.h"

namespace
{

using common::OwnedFile;
using Buffer = std::unique_ptr<unsigned char, void (*)(void*)>;

// The daemon keeps its outputs for ever; a test that makes thousands of them does not.
std::string take(unsigned char* output, int length)
{
    const Buffer buffer(output, free);
    cipher_buf_all = nullptr;
    return std::string(reinterpret_cast<char*>(output), static_cast<std::size_t>(length));
}

// A stream over the bytes, which are left alone and must outlive it. It cannot be empty on its own.
OwnedFile openBytes(const std::string& bytes)
{
    FILE* const stream = bytes.empty() ? fopen("/dev/null", "rb")
                                       : fmemopen(const_cast<char*>(bytes.data()), bytes.size(), "rb");
    return OwnedFile(stream);
}

class UsbCipher : public testing::Test
{
protected:
    // What the daemon makes of a stream that holds `bytes`, told that it has `total`.
    std::string run(const std::string& bytes, int total, int enc = 0)
    {
        const OwnedFile file = openBytes(bytes);
        return runOn(file.get(), total, enc);
    }
    std::string runOn(FILE* file, int total, int enc = 0)
    {
        int length = -1;
        unsigned char* const output =
            aes_256_cbc_all(file, unsignedBytes(key), unsignedBytes(iv), enc, total, length);
        EXPECT_EQ(output, cipher_buf_all);
        return take(output, length);
    }
    // Whether nothing is decrypted: a total below zero has no size that can be allocated.
    bool isRefused(const std::string& bytes, int total)
    {
        const OwnedFile file = openBytes(bytes);
        int length = 4711;
        return aes_256_cbc_all(file.get(), unsignedBytes(key), unsignedBytes(iv), 0, total, length) ==
                   nullptr &&
               length == 4711;
    }
    // The same by the cipher at once, over all but the trailer.
    std::string expected(const std::string& bytes, int total, bool encrypt = false)
    {
        const auto limit =
            static_cast<std::size_t>(std::max<std::int64_t>(std::int64_t{total} - kTrailerSize, 0));
        return cipherAtOnce(bytes.substr(0, limit), key, iv, encrypt);
    }

    Random random{1};
    std::string key = random.bytes(32);
    std::string iv = random.bytes(kIvSize);
    TemporaryDirectory directory;
};

// ---- Known vectors ----

TEST_F(UsbCipher, AgreesWithThePublishedVector)
{
    // CBC-AES256 of NIST SP 800-38A, F.2.5.
    key = fromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
    iv = fromHex("000102030405060708090a0b0c0d0e0f");
    const std::string plain = fromHex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                                      "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
    const std::string secret = fromHex("f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
                                       "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b");
    const std::string trailer(kTrailerSize, 't');
    const std::string encrypted = run(plain + trailer, static_cast<int>(plain.size()) + kTrailerSize, 1);
    ASSERT_EQ(encrypted.size(), secret.size() + 16); // a whole block of padding
    EXPECT_EQ(toHex(encrypted.substr(0, secret.size())), toHex(secret));
    EXPECT_EQ(run(encrypted + trailer, static_cast<int>(encrypted.size()) + kTrailerSize), plain);
}

TEST_F(UsbCipher, DecryptsWhatTheOpensslCommandHasEncrypted)
{
    for (const std::size_t size : {0, 1, 15, 16, 17, 64, 10239, 10240, 10241, 300000}) {
        const std::string plain = random.bytes(size);
        writeBytes(directory / "plain", plain);
        mustRun(directory.path(), {"openssl", "enc", "-aes-256-cbc", "-K", toHex(key), "-iv", toHex(iv),
                                   "-in", "plain", "-out", "secret"});
        const std::string stream = common::readWhole(directory / "secret") + random.bytes(kTrailerSize);
        EXPECT_TRUE(run(stream, static_cast<int>(stream.size())) == plain) << size;
    }
}

TEST_F(UsbCipher, EncryptsWhatTheOpensslCommandDecrypts)
{
    for (const std::size_t size : {0, 1, 15, 16, 17, 10240, 300000}) {
        const std::string plain = random.bytes(size);
        writeBytes(directory / "secret",
                   run(plain + random.bytes(kTrailerSize), static_cast<int>(size) + kTrailerSize, 1));
        mustRun(directory.path(), {"openssl", "enc", "-d", "-aes-256-cbc", "-K", toHex(key), "-iv", toHex(iv),
                                   "-in", "secret", "-out", "plain"});
        EXPECT_TRUE(common::readWhole(directory / "plain") == plain) << size;
    }
}

// ---- Sizes ----

TEST_F(UsbCipher, ReturnsWhatWasEncryptedTenThousandTimes)
{
    for (int round = 0; round < 10000; ++round) {
        key = random.bytes(32);
        iv = random.bytes(kIvSize);
        const std::string plain = random.bytes(static_cast<std::size_t>(random.number(0, 2500)));
        const std::string stream = cipherAtOnce(plain, key, iv, true) + random.bytes(kTrailerSize);
        const OwnedFile file = openBytes(stream);
        ASSERT_TRUE(runOn(file.get(), static_cast<int>(stream.size())) == plain) << "round " << round;
    }
}

TEST_F(UsbCipher, FeedsAllButTheTrailerForEverySmallSize)
{
    for (int size = 0; size <= 700; ++size) {
        const std::string stream = random.bytes(static_cast<std::size_t>(size));
        // As an installation counts, as a probe counts, and with nothing to count.
        for (const int total : {size, size + kIvSize, 0}) {
            ASSERT_TRUE(run(stream, total) == expected(stream, total)) << size << " of " << total;
        }
        ASSERT_TRUE(isRefused(stream, -kIvSize)) << size; // a file whose size cannot be had
    }
}

TEST_F(UsbCipher, FeedsAllButTheTrailerAroundEveryChunkBorder)
{
    for (const int chunks : {1, 2, 3}) {
        // The end of the stream, and the end of what is fed, pass over the border.
        for (int size = chunks * kChunkSize - 40; size <= chunks * kChunkSize + kTrailerSize + 40; ++size) {
            const std::string stream = random.bytes(static_cast<std::size_t>(size));
            ASSERT_TRUE(run(stream, size) == expected(stream, size)) << size;
            ASSERT_TRUE(run(stream, size + kIvSize) == expected(stream, size + kIvSize)) << size;
        }
    }
}

TEST_F(UsbCipher, EncryptsForEverySizeAroundAChunkBorder)
{
    for (int size = kChunkSize - 20; size <= kChunkSize + kTrailerSize + 20; ++size) {
        const std::string stream = random.bytes(static_cast<std::size_t>(size));
        ASSERT_TRUE(run(stream, size, 1) == expected(stream, size, true)) << size;
    }
}

TEST_F(UsbCipher, BearsATotalThatDoesNotFitTheStream)
{
    const std::string stream = random.bytes(3 * kChunkSize + 77);
    for (const int total : {1, 533, 534, 535, 10240, 40000, 50000000}) {
        EXPECT_TRUE(run(stream, total) == expected(stream, total)) << total;
    }
    EXPECT_TRUE(isRefused(stream, INT32_MIN));
    EXPECT_TRUE(isRefused(stream, -1));
}

TEST_F(UsbCipher, ReturnsWhatIsThereOfAStreamThatIsCutAnywhere)
{
    const std::string whole = cipherAtOnce(random.bytes(700), key, iv, true) + random.bytes(kTrailerSize);
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const std::string stream = whole.substr(0, size);
        const int total = static_cast<int>(whole.size()); // found out before it was cut
        ASSERT_TRUE(run(stream, total) == expected(stream, total)) << size;
    }
}

TEST_F(UsbCipher, OmitsTheLastBlockWithAWrongKey)
{
    const std::string stream =
        cipherAtOnce(std::string(1000, 'p'), key, iv, true) + random.bytes(kTrailerSize);
    key[31] = static_cast<char>(key[31] ^ 1);
    const std::string output = run(stream, static_cast<int>(stream.size()));
    EXPECT_EQ(output, expected(stream, static_cast<int>(stream.size())));
    EXPECT_EQ(output.size(), 992U);
}

// ---- A stick that is pulled out ----

// A file of which something happens before the third piece is read.
struct Stick {
    int descriptor;
    std::function<bool()> pull; // false: reading fails from now on
    int reads = 0;
    std::string delivered;
};

ssize_t readStick(void* cookie, char* buffer, size_t size)
{
    Stick& stick = *static_cast<Stick*>(cookie);
    if (++stick.reads == 3 && !stick.pull()) {
        errno = EIO;
        return -1;
    }
    const ssize_t count = read(stick.descriptor, buffer, size);
    stick.delivered.append(buffer, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return count;
}

class UsbCipherPulled : public UsbCipher
{
protected:
    // The daemon's output, compared with that of the bytes which it could read.
    std::string pullOut(const std::function<bool()>& pull)
    {
        writeBytes(name, whole);
        const OwnedFile real(fopen(name.c_str(), "rb+"));
        Stick stick{fileno(real.get()), pull, 0, ""};
        const OwnedFile stream(fopencookie(&stick, "rb", {readStick, nullptr, nullptr, nullptr}));
        const int total = static_cast<int>(whole.size());
        const std::string output = runOn(stream.get(), total);
        EXPECT_GE(stick.reads, 3);
        EXPECT_TRUE(output == expected(stick.delivered, total));
        return output;
    }

    const std::string name = directory / "image";
    const std::string plain = random.bytes(200000);
    const std::string whole = cipherAtOnce(plain, key, iv, true) + random.bytes(kTrailerSize);
};

TEST_F(UsbCipherPulled, EndsWhereReadingFails)
{
    EXPECT_LT(pullOut([] { return false; }).size(), plain.size());
}

TEST_F(UsbCipherPulled, EndsWhereTheFileEnds)
{
    EXPECT_LT(pullOut([&] { return truncate(name.c_str(), 50001) == 0; }).size(), 50001U);
}

TEST_F(UsbCipherPulled, EndsWhereTheFileIsEmptied)
{
    EXPECT_LT(pullOut([&] { return truncate(name.c_str(), 0) == 0; }).size(), plain.size());
}

TEST_F(UsbCipherPulled, GoesOnWithAFileThatHasLostItsName)
{
    EXPECT_EQ(pullOut([&] { return unlink(name.c_str()) == 0; }), plain);
}

TEST_F(UsbCipherPulled, ReadsNoMoreOfAFileThatGrows)
{
    const auto grow = [&] {
        std::ofstream(name, std::ios::binary | std::ios::app) << std::string(100000, 'g');
        return true;
    };
    EXPECT_EQ(pullOut(grow), plain);
}

// ---- Memory ----

TEST_F(UsbCipher, TakesOneCopyOfALargeImage)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer has memory of its own";
#endif
    constexpr std::int64_t kSize = 400LL << 20;
    const std::string name = directory / "image";
    writeBytes(name, "");
    ASSERT_EQ(truncate(name.c_str(), kSize), 0); // holes take no room
    const std::int64_t before = resetPeakMemory();
    const OwnedFile file(fopen(name.c_str(), "rb"));
    int length = 0;
    unsigned char* const output = aes_256_cbc_all(file.get(), unsignedBytes(key), unsignedBytes(iv), 0,
                                                  static_cast<int>(kSize), length);
    const std::int64_t grown = peakMemory() - before;
    const Buffer buffer(output, free);
    RecordProperty("bytes", std::to_string(grown));
    std::printf("image %lld bytes, memory %lld bytes\n", static_cast<long long>(kSize),
                static_cast<long long>(grown));
    EXPECT_GT(length, kSize - 1000);
    EXPECT_GT(grown, kSize - (8LL << 20));
    EXPECT_LT(grown, kSize + (8LL << 20)); // huge pages round up
}

} // namespace
