// The judging of signatures, against the openssl command and against files that are no images.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/files/whole-file.h"
#include "tests/support/temporary-directory.h"
#include "tests/usb/programs.h"
#include "tests/usb/usb-test-data.h"
#include "vset/signature/image-signature.h"

namespace fs = std::filesystem;
using signature::Verdict;

namespace
{

class ImageSignature : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        keys = new TemporaryDirectory;
        copyTestKeys(keys->path(), {"maker", "stranger", "short", "curve"});
    }
    static void TearDownTestSuite() { delete keys; }

    static std::vector<signature::TrustedKey> trust(const std::string& name)
    {
        std::vector<signature::TrustedKey> trusted;
        signature::Key key = signature::readPublicKey(*keys / (name + ".pub.pem"));
        trusted.push_back({signature::keyIdOf(key.get()), std::move(key)});
        return trusted;
    }
    // Signed by the openssl command; `named`: the key that the trailer names.
    std::string sign(const std::string& content, const std::string& by = "maker",
                     const std::string& named = "maker")
    {
        const signature::Header header = signature::makeHeader(trust(named)[0].id);
        const std::string covered = content + std::string(header.begin(), header.end());
        writeBytes(directory / "covered", covered);
        mustRun(directory.path(), {"openssl", "dgst", "-sha256", "-sign", *keys / (by + ".pem"), "-out",
                                   "signature", "covered"});
        return covered + common::readWhole(directory / "signature");
    }
    Verdict judge(const std::string& file, const std::vector<signature::TrustedKey>& trusted)
    {
        writeBytes(directory / "file", file);
        const int descriptor = signature::openRegularFile((directory / "file").c_str());
        const Verdict verdict = signature::verify(descriptor, trusted);
        close(descriptor);
        return verdict;
    }
    int tryOpen(const std::string& name)
    {
        const int descriptor = signature::openRegularFile((directory / name).c_str());
        if (descriptor >= 0) {
            close(descriptor);
        }
        return descriptor;
    }

    static TemporaryDirectory* keys;
    TemporaryDirectory directory;
    Random random{2};
};
TemporaryDirectory* ImageSignature::keys = nullptr;

TEST_F(ImageSignature, HoldsForWhatTheOpensslCommandHasSigned)
{
    for (const std::size_t size : {0, 1, 16, 65535, 65536, 65537, 300000}) {
        EXPECT_EQ(judge(sign(random.bytes(size)), trust("maker")), Verdict::Signed) << size;
    }
}

TEST_F(ImageSignature, BreaksWithEveryByteThatIsChanged)
{
    const std::string file = sign(random.bytes(40));
    const auto trusted = trust("maker");
    for (std::size_t at = 0; at < file.size(); ++at) {
        std::string changed = file;
        changed[at] = static_cast<char>(changed[at] ^ 0x40);
        ASSERT_NE(judge(changed, trusted), Verdict::Signed) << at;
    }
}

TEST_F(ImageSignature, BreaksWhereverTheFileIsCutOrExtended)
{
    const std::string file = sign(random.bytes(100));
    const auto trusted = trust("maker");
    for (std::size_t size = 0; size < file.size(); ++size) {
        ASSERT_NE(judge(file.substr(0, size), trusted), Verdict::Signed) << size;
        ASSERT_NE(judge(file.substr(file.size() - size), trusted), Verdict::Signed) << size;
    }
    EXPECT_NE(judge(file + "x", trusted), Verdict::Signed);
    EXPECT_NE(judge("x" + file, trusted), Verdict::Signed);
    EXPECT_NE(judge(file + file, trusted), Verdict::Signed);
}

TEST_F(ImageSignature, IsNotInFilesWithoutATrailer)
{
    const auto trusted = trust("maker");
    for (std::size_t size = 0; size < 1200; ++size) {
        const Verdict expected = size < signature::kTrailerSize ? Verdict::TooShort : Verdict::NoTrailer;
        ASSERT_EQ(judge(std::string(size, '\0'), trusted), expected) << size;
    }
}

TEST_F(ImageSignature, NeedsAKeyThatIsTrusted)
{
    EXPECT_EQ(judge(sign("content"), {}), Verdict::UnknownKey);
    EXPECT_EQ(judge(sign("content"), trust("stranger")), Verdict::UnknownKey);
    EXPECT_EQ(judge(sign("content", "stranger"), trust("maker")), Verdict::WrongSignature);
    EXPECT_EQ(judge(sign("content", "stranger", "stranger"), trust("stranger")), Verdict::Signed);
}

TEST_F(ImageSignature, IsRefusedInAnUnknownLayout)
{
    for (const std::size_t at : {8, 9, 10, 11, 20, 21}) { // layout, scheme, length
        std::string file = sign("content");
        file[file.size() - signature::kTrailerSize + at] ^= 2;
        EXPECT_EQ(judge(file, trust("maker")), Verdict::UnknownScheme) << at;
    }
}

TEST_F(ImageSignature, OpensRegularFilesOnlyAndNeverWaits)
{
    writeBytes(directory / "file", "x");
    fs::create_symlink("file", directory / "link");
    fs::create_directory(directory / "directory");
    fs::create_symlink("loop", directory / "loop");
    ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
    EXPECT_GE(tryOpen("file"), 0);
    EXPECT_GE(tryOpen("link"), 0);
    for (const char* name : {"directory", "pipe", "nothing", "loop", "", "/dev/zero", "file/x"}) {
        EXPECT_EQ(*name == '/' ? signature::openRegularFile(name) : tryOpen(name), -1) << name;
    }
    EXPECT_EQ(signature::openRegularFile(std::string(5000, 'x').c_str()), -1);
}

TEST_F(ImageSignature, TellsADirectoryAndAClosedFile)
{
    const int opened = open(directory.path().c_str(), O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(signature::verify(opened, trust("maker")), Verdict::NoFile);
    close(opened);
    EXPECT_EQ(signature::verify(-1, trust("maker")), Verdict::Unreadable);
}

TEST_F(ImageSignature, TakesTheUsableKeysOfADirectory)
{
    fs::copy(*keys / "curve.pub.pem", directory / "curve.pem");
    fs::copy(*keys / "stranger.pub.pem", directory / "2.pem");
    fs::copy(*keys / "maker.pub.pem", directory / "1.pem");
    fs::copy(*keys / "maker.pub.pem", directory / "maker.txt");
    fs::copy(*keys / "maker.pem", directory / "private.pem");
    fs::copy(*keys / "short.pub.pem", directory / "short.pem");
    writeBytes(directory / "garbage.pem", random.bytes(5000));
    writeBytes(directory / "empty.pem", "");
    fs::create_directory(directory / "directory.pem");
    ASSERT_EQ(mkfifo((directory / "pipe.pem").c_str(), 0600), 0);
    writeBytes(directory / "endless.pem", "");
    fs::resize_file(directory / "endless.pem", std::uintmax_t{1} << 42); // reading it takes an hour
    const auto found = signature::readKeyDirectory(directory.path());
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[0].id, trust("maker")[0].id);
    EXPECT_EQ(found[1].id, trust("stranger")[0].id);
    EXPECT_TRUE(signature::readKeyDirectory(directory / "nowhere").empty());
    EXPECT_TRUE(signature::readKeyDirectory(directory / "1.pem").empty());
}

TEST_F(ImageSignature, IsJudgedInLittleMemory)
{
    constexpr off_t kSize = 300 << 20;
    writeBytes(directory / "large", "");
    ASSERT_EQ(truncate((directory / "large").c_str(), kSize), 0);
    const int descriptor = open((directory / "large").c_str(), O_RDWR);
    const std::string trailer = sign("");
    ASSERT_EQ(pwrite(descriptor, trailer.data(), trailer.size(), kSize - 534), 534);
    const auto trusted = trust("maker");
    const std::int64_t before = resetPeakMemory();
    EXPECT_EQ(signature::verify(descriptor, trusted), Verdict::WrongSignature);
    close(descriptor);
    EXPECT_LT(peakMemory() - before, 32 << 20); // not a tenth of which it needs
}

} // namespace
