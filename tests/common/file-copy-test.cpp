// Copies of files and trees, holes included.
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

#include "common/files/file-copy.h"
#include "common/files/whole-file.h"
#include "tests/support/temporary-directory.h"

namespace fs = std::filesystem;

namespace
{

class FileCopy : public testing::Test
{
protected:
    fs::path write(const char* name, const std::string& text) const
    {
        std::ofstream(directory / name, std::ios::binary) << text;
        return directory / name;
    }
    static blkcnt_t blocksOf(const fs::path& file)
    {
        struct stat status = {};
        return stat(file.c_str(), &status) == 0 ? status.st_blocks : -1;
    }

    TemporaryDirectory directory;
};

TEST_F(FileCopy, HolesStayHoles)
{
    constexpr std::uintmax_t kSize = 8 << 20;
    const fs::path chip = write("chip", "head");
    fs::resize_file(chip, kSize / 2);
    std::ofstream(chip, std::ios::binary | std::ios::app) << "middle";
    fs::resize_file(chip, kSize);
    common::copyFile(chip, directory / "copy");
    EXPECT_EQ(fs::file_size(directory / "copy"), kSize);
    EXPECT_LE(blocksOf(directory / "copy"), 64) << "in blocks of 512 bytes";
    EXPECT_TRUE(common::readWhole(directory / "copy") == common::readWhole(chip));
}

TEST_F(FileCopy, ReplacesWhatIsThereAndKeepsTheMode)
{
    const fs::path file = write("file", std::string(100000, 'x') + "end");
    fs::permissions(file, fs::perms(0750));
    write("copy", std::string(200000, 'y'));
    common::copyFile(file, directory / "copy");
    EXPECT_TRUE(common::readWhole(directory / "copy") == common::readWhole(file));
    EXPECT_EQ(fs::status(directory / "copy").permissions(), fs::perms(0750));
    common::copyFile(write("empty", ""), directory / "copy");
    EXPECT_EQ(common::readWhole(directory / "copy"), "");
}

TEST_F(FileCopy, TreeComesWithItsLinks)
{
    fs::create_directories(directory / "tree/inner");
    write("tree/inner/file", "text");
    fs::create_symlink("inner/file", directory / "tree/link");
    common::copyTree(directory / "tree", directory / "copy");
    EXPECT_EQ(common::readWhole(directory / "copy/inner/file"), "text");
    EXPECT_EQ(fs::read_symlink(directory / "copy/link"), "inner/file");
    common::copyTree(directory / "tree", directory / "copy"); // over what is there
    EXPECT_EQ(common::readWhole(directory / "copy/link"), "text");
}

TEST_F(FileCopy, PipeIsRefusedAtOnceAndNamed)
{
    fs::create_directory(directory / "tree");
    ASSERT_EQ(mkfifo((directory / "tree/pipe").c_str(), 0600), 0);
    EXPECT_THROW(common::copyFile(directory / "tree/pipe", directory / "copy"), fs::filesystem_error);
    try {
        common::copyTree(directory / "tree", directory / "copy");
        FAIL() << "it was copied";
    } catch (const fs::filesystem_error& error) {
        EXPECT_EQ(error.code(), std::errc::not_supported);
        EXPECT_EQ(error.path1(), directory / "tree/pipe");
    }
}

} // namespace
