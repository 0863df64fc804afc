// What the daemon opens, and what it takes for not there.
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/files/whole-file.h"
#include "src/src/fw-update-file.h"
#include "tests/support/set-test.h"

namespace fs = std::filesystem;

namespace
{

const std::string kPath = "/tmp/opened";

class FWUpdateFile : public testing::Test
{
protected:
    void SetUp() override { fs::remove_all(kPath); }

    static bool isInherited(const File& file)
    {
        return (fcntl(fileno(file.get()), F_GETFD) & FD_CLOEXEC) == 0;
    }
    static std::ptrdiff_t openDescriptors()
    {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    }
    static void makeSocket()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        kPath.copy(address.sun_path, sizeof address.sun_path - 1);
        const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_EQ(bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        close(socket);
    }
};

TEST_F(FWUpdateFile, IsReadThroughALink)
{
    writeFile("/tmp/target", "text");
    fs::create_symlink("/tmp/target", kPath);
    std::string text;
    EXPECT_TRUE(readWhole(kPath, 4, text));
    EXPECT_EQ(text, "text");
}

TEST_F(FWUpdateFile, IsReadAcrossTheBordersOfItsChunks)
{
    const std::string content = std::string(4096, 'a') + std::string(4096, 'b') + "c";
    writeFile(kPath, content);
    std::string text;
    EXPECT_TRUE(readWhole(kPath, content.size(), text));
    EXPECT_EQ(text, content);
    EXPECT_FALSE(readWhole(kPath, content.size() - 1, text));
}

TEST_F(FWUpdateFile, OfNoSizeIsReadAsFarAsItGoes)
{
    ASSERT_EQ(prctl(PR_SET_NAME, "who reads"), 0); // an emulator's name may be there otherwise
    std::string text;
    EXPECT_TRUE(readWhole("/proc/self/comm", SIZE_MAX, text));
    EXPECT_EQ(text, "who reads\n");
}

TEST_F(FWUpdateFile, ThatIsADirectoryOpensAndIsEmpty)
{
    std::string text;
    EXPECT_TRUE(openToRead("/tmp"));
    EXPECT_TRUE(readWhole("/tmp", SIZE_MAX, text));
    EXPECT_EQ(text, "");
}

TEST_F(FWUpdateFile, OfAnotherKindDoesNotOpenAndStaysClosed)
{
    const std::ptrdiff_t before = openDescriptors();
    EXPECT_FALSE(openToRead("/dev/zero"));
    EXPECT_FALSE(openToRead("/dev/null"));
    ASSERT_EQ(mkfifo(kPath.c_str(), 0600), 0);
    EXPECT_FALSE(openToRead(kPath));
    fs::remove(kPath);
    makeSocket();
    EXPECT_FALSE(openToRead(kPath));
    EXPECT_FALSE(openToReplace(kPath));
    EXPECT_FALSE(openToReplace("/dev/null"));
    EXPECT_FALSE(openToReplace("/tmp"));
    EXPECT_EQ(openDescriptors(), before);
}

// A processor of 32 bits has such sizes and times only in the types that are asked for.
TEST_F(FWUpdateFile, OfFourGibibytesAndMoreOpens)
{
    constexpr uintmax_t kSize = (uintmax_t{4} << 30) + 1;
    writeFile(kPath, "text");
    fs::resize_file(kPath, kSize);
    EXPECT_TRUE(openToRead(kPath));
    EXPECT_TRUE(openToReplace(kPath));
    EXPECT_EQ(fs::file_size(kPath), 0u);
}

TEST_F(FWUpdateFile, FromAfterTheLastSecondOf32BitsOpens)
{
    writeFile(kPath, "text");
    const time_t kAfter = static_cast<time_t>(uint64_t{1} << 32); // in February 2106
    const timespec times[] = {{kAfter, 0}, {kAfter, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, kPath.c_str(), times, 0), 0);
    struct stat status;
    ASSERT_EQ(stat(kPath.c_str(), &status), 0);
    if (status.st_mtime != kAfter) {
        GTEST_SKIP() << "the file system under /tmp has no such times";
    }
    EXPECT_TRUE(openToRead(kPath));
}

TEST_F(FWUpdateFile, IsMadeOrEmptiedToBeReplaced)
{
    for (const char* content : {"a longer text", "text"}) {
        const File file = openToReplace(kPath);
        ASSERT_TRUE(file);
        fputs(content, file.get());
        fflush(file.get());
        EXPECT_EQ(common::readWhole(kPath), content);
    }
}

TEST_F(FWUpdateFile, IsNotReplacedThroughALink)
{
    writeFile("/tmp/target", "precious");
    fs::create_symlink("/tmp/target", kPath);
    EXPECT_FALSE(openToReplace(kPath));
    EXPECT_EQ(common::readWhole("/tmp/target"), "precious");
}

TEST_F(FWUpdateFile, IsMadeWithTheRightsThatTheProcessGives)
{
    const mode_t usual = umask(027);
    const File file = openToReplace(kPath);
    umask(usual);
    struct stat status;
    ASSERT_EQ(stat(kPath.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
}

TEST_F(FWUpdateFile, IsKeptFromOtherPrograms)
{
    EXPECT_FALSE(isInherited(openToReplace(kPath)));
    EXPECT_FALSE(isInherited(openToRead(kPath)));
}

} // namespace
