// What may stand under a name that a person has given.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/files/regular-file.h"
#include "tests/support/temporary-directory.h"

namespace
{
namespace fs = std::filesystem;
using common::RegularFile;
using testing::HasSubstr;

class RegularFileTest : public testing::Test
{
protected:
    TemporaryDirectory directory;
};

TEST_F(RegularFileTest, IsOpenForReading)
{
    std::ofstream(directory / "file") << "text";
    fs::create_symlink("file", directory / "link");
    for (const char* name : {"file", "link"}) {
        const RegularFile file(directory / name);
        char text[8] = {};
        ASSERT_GE(file.descriptor(), 0) << file.problem();
        EXPECT_EQ(read(file.descriptor(), text, sizeof text), 4);
        EXPECT_STREQ(text, "text");
        EXPECT_EQ(common::problemOfSpecialFile(directory / name), "");
    }
}

// A pipe without a writer would make an ordinary open() wait for ever.
TEST_F(RegularFileTest, NeverWaitsForAPipeNorReadsADevice)
{
    ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
    fs::create_symlink("pipe", directory / "link");
    const std::pair<fs::path, const char*> kCases[] = {
        {directory / "pipe", "is not a file but a pipe"},
        {directory / "link", "is not a file but a pipe"},
        {directory.path(), "is not a file but a directory"},
        {"/dev/zero", "is not a file but a device"},
    };
    for (const auto& [path, problem] : kCases) {
        const RegularFile file(path);
        EXPECT_EQ(file.descriptor(), -1) << path;
        EXPECT_EQ(file.problem(), problem) << path;
        EXPECT_EQ(common::problemOfSpecialFile(path), problem) << path;
    }
}

TEST_F(RegularFileTest, SaysWhyItCannotBeOpened)
{
    const RegularFile missing(directory / "missing");
    EXPECT_EQ(missing.descriptor(), -1);
    EXPECT_THAT(missing.problem(), HasSubstr("cannot be opened: No such file"));
    EXPECT_EQ(common::problemOfSpecialFile(directory / "missing"), "");
}

TEST_F(RegularFileTest, IsReadNoFurtherThanItsReaderWants)
{
    std::ofstream(directory / "file") << "text";
    std::ofstream(directory / "sparse");
    fs::resize_file(directory / "sparse", uintmax_t{1} << 40);
    std::string problem;
    EXPECT_EQ(common::readRegularFile(directory / "file", 4, problem), "text") << problem;
    EXPECT_EQ(problem, "");
    struct Case {
        fs::path path;
        const char* problem;
    };
    const Case kCases[] = {
        {directory / "sparse", "is longer than 3 bytes"},
        {directory / "file", "is longer than 3 bytes"},
        {"/proc/self/status", "is longer than 3 bytes"}, // whose size is 0
        {"/dev/zero", "is not a file but a device"},
        {"/proc/self/mem", "cannot be read: Input/output error"},
        {directory / "missing", "cannot be opened: No such file or directory"},
    };
    for (const auto& [path, expected] : kCases) {
        EXPECT_EQ(common::readRegularFile(path, 3, problem), std::nullopt) << path;
        EXPECT_EQ(problem, expected) << path;
    }
}
} // namespace
