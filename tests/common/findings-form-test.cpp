// Reports of our checkers: whole, or not there.
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "common/errors.h"
#include "common/files/whole-file.h"
#include "common/findings/findings-form.h"
#include "tests/support/names-in.h"
#include "tests/support/temporary-directory.h"

namespace fs = std::filesystem;

namespace
{

const std::string kReport = std::string(5000, 'x') + "\n";

// No file may be longer than this, as on a disk that is full.
class ShortFiles
{
public:
    ShortFiles() : handler_(std::signal(SIGXFSZ, SIG_IGN))
    {
        getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit few = {1000, before_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &few);
    }
    ~ShortFiles()
    {
        setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handler_);
    }
    ShortFiles(const ShortFiles&) = delete;
    ShortFiles& operator=(const ShortFiles&) = delete;

private:
    rlimit before_ = {};
    void (*handler_)(int);
};

class Report : public testing::Test
{
protected:
    void expectRefused(const char* why)
    {
        const ShortFiles limit;
        try {
            common::writeReport(file, kReport);
            ADD_FAILURE() << "it was written";
        } catch (const common::Failure& error) {
            EXPECT_THAT(error.what(),
                        AllOf(testing::HasSubstr(why), testing::EndsWith(": give another file")));
        }
    }

    TemporaryDirectory directory;
    fs::path file = directory / "report.xml";
};

TEST_F(Report, NothingStaysOfOneThatCannotBeWritten)
{
    expectRefused("File too large");
    EXPECT_THAT(namesIn(directory.path()), testing::IsEmpty());
}

TEST_F(Report, OldOneStaysUntilTheNewOneIsWhole)
{
    writeBytes(file, "old");
    chmod(file.c_str(), 0640);
    expectRefused("File too large");
    EXPECT_EQ(common::readWhole(file), "old");
    common::writeReport(file, kReport);
    EXPECT_EQ(common::readWhole(file), kReport);
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0640));
    EXPECT_THAT(namesIn(directory.path()), testing::ElementsAre("report.xml"));
}

TEST_F(Report, LinkStaysALink)
{
    fs::create_directory(directory / "reports");
    fs::create_symlink("reports/today.xml", file);
    for (const std::string& text : {kReport, std::string("short")}) { // not there, and there
        common::writeReport(file, text);
        EXPECT_TRUE(fs::is_symlink(file));
        EXPECT_EQ(common::readWhole(directory / "reports/today.xml"), text);
    }
}

TEST_F(Report, PipeAndDeviceTakeItInPlace)
{
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    std::string read;
    const int reader = open(file.c_str(), O_RDONLY | O_NONBLOCK);
    fcntl(reader, F_SETFL, 0);
    std::thread reading([&] {
        pollfd writer = {reader, POLLIN, 0}; // before there is one, a read would be at the end
        poll(&writer, 1, -1);
        read = common::readToEnd(reader);
    });
    common::writeReport(file, kReport);
    reading.join();
    close(reader);
    EXPECT_EQ(read, kReport);
    EXPECT_TRUE(fs::is_fifo(file));
    common::writeReport("/dev/null", kReport);
    EXPECT_THROW(common::writeReport("/dev/full", kReport), common::Failure);
    EXPECT_TRUE(fs::is_character_file("/dev/full"));
}

// Nothing can be put beside it: what is cut goes at least.
TEST_F(Report, FileInAClosedDirectoryIsWrittenInPlace)
{
    writeBytes(file, "old");
    const uid_t user = geteuid();
    if (user == 0) { // whom no directory is closed to
        constexpr uid_t kSomebody = 65534;
        ASSERT_EQ(chown(file.c_str(), kSomebody, 0), 0);
        fs::permissions(directory.path(), fs::perms(0755));
        ASSERT_EQ(seteuid(kSomebody), 0);
    } else {
        fs::permissions(directory.path(), fs::perms(0555));
    }
    common::writeReport(file, kReport);
    EXPECT_EQ(common::readWhole(file), kReport);
    expectRefused("File too large");
    EXPECT_EQ(fs::file_size(file), 0U);
    if (user == 0) {
        ASSERT_EQ(seteuid(0), 0);
    }
    fs::permissions(directory.path(), fs::perms(0755));
    EXPECT_THAT(namesIn(directory.path()), testing::ElementsAre("report.xml"));
}

} // namespace
