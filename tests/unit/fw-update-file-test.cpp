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

const std::string kOpened = "/tmp/opened";

class FWUpdateFile : public testing::Test
{
protected:
    void SetUp() override { fs::remove_all(kOpened); }

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
        kOpened.copy(address.sun_path, sizeof address.sun_path - 1);
        const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_EQ(bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        close(socket);
    }
};

TEST_F(FWUpdateFile, IsReadThroughALink)
{
    writeFile("/tmp/target", "text");
    fs::create_symlink("/tmp/target", kOpened);
    std::string text;
    EXPECT_TRUE(readWhole(kOpened, 4, text));
    EXPECT_EQ(text, "text");
}

TEST_F(FWUpdateFile, IsReadAcrossTheBordersOfItsChunks)
{
    const std::string content = std::string(4096, 'a') + std::string(4096, 'b') + "c";
    writeFile(kOpened, content);
    std::string text;
    EXPECT_TRUE(readWhole(kOpened, content.size(), text));
    EXPECT_EQ(text, content);
    EXPECT_FALSE(readWhole(kOpened, content.size() - 1, text));
}

TEST_F(FWUpdateFile, ThatIsNotThereIsNotRead)
{
    std::string text;
    EXPECT_FALSE(readWhole(kOpened, SIZE_MAX, text));
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
    ASSERT_EQ(mkfifo(kOpened.c_str(), 0600), 0);
    EXPECT_FALSE(openToRead(kOpened));
    fs::remove(kOpened);
    makeSocket();
    EXPECT_FALSE(openToRead(kOpened));
    EXPECT_FALSE(openToReplace(kOpened));
    EXPECT_FALSE(openToReplace("/dev/null"));
    EXPECT_FALSE(openToReplace("/tmp"));
    EXPECT_EQ(openDescriptors(), before);
}

// What opens first in a process without an input gets the number 0.
TEST_F(FWUpdateFile, OfTheDescriptor0IsAsGoodAsAnother)
{
    writeFile(kOpened, "text");
    const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(STDIN_FILENO);
    EXPECT_FALSE(openToRead("/dev/null"));
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1); // closed again
    {
        const File file = openToRead(kOpened);
        EXPECT_TRUE(file && fileno(file.get()) == STDIN_FILENO);
    }
    dup2(input, STDIN_FILENO);
    close(input);
}

// A processor of 32 bits has such sizes and times only in the types that are asked for.
TEST_F(FWUpdateFile, OfFourGibibytesAndMoreOpens)
{
    constexpr uintmax_t kSize = (uintmax_t{4} << 30) + 1;
    writeFile(kOpened, "text");
    fs::resize_file(kOpened, kSize);
    EXPECT_TRUE(openToRead(kOpened));
    EXPECT_TRUE(openToReplace(kOpened));
    EXPECT_EQ(fs::file_size(kOpened), 0u);
}

TEST_F(FWUpdateFile, FromAfterTheLastSecondOf32BitsOpens)
{
    writeFile(kOpened, "text");
    const time_t kAfter = static_cast<time_t>(uint64_t{1} << 32); // in February 2106
    const timespec times[] = {{kAfter, 0}, {kAfter, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, kOpened.c_str(), times, 0), 0);
    struct stat status;
    ASSERT_EQ(stat(kOpened.c_str(), &status), 0);
    if (status.st_mtime != kAfter) {
        GTEST_SKIP() << "the file system under /tmp has no such times";
    }
    EXPECT_TRUE(openToRead(kOpened));
}

TEST_F(FWUpdateFile, IsMadeOrEmptiedToBeReplaced)
{
    for (const char* content : {"a longer text", "text"}) {
        const File file = openToReplace(kOpened);
        ASSERT_TRUE(file);
        fputs(content, file.get());
        fflush(file.get());
        EXPECT_EQ(common::readWhole(kOpened), content);
    }
}

TEST_F(FWUpdateFile, IsNotReplacedThroughALink)
{
    writeFile("/tmp/target", "precious");
    fs::create_symlink("/tmp/target", kOpened);
    EXPECT_FALSE(openToReplace(kOpened));
    EXPECT_EQ(common::readWhole("/tmp/target"), "precious");
}

TEST_F(FWUpdateFile, IsMadeWithTheRightsThatTheProcessGives)
{
    for (const mode_t mask : {027u, 0u}) {
        fs::remove(kOpened);
        const mode_t usual = umask(mask);
        const File file = openToReplace(kOpened);
        umask(usual);
        struct stat status;
        ASSERT_EQ(stat(kOpened.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0666u & ~mask);
    }
}

TEST_F(FWUpdateFile, IsKeptFromOtherPrograms)
{
    EXPECT_FALSE(isInherited(openToReplace(kOpened)));
    EXPECT_FALSE(isInherited(openToRead(kOpened)));
}

} // namespace
