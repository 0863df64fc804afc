// Packages as somebody else may have made them.
#include <algorithm>
#include <gmock/gmock.h>
#include <map>
#include <random>
#include <sys/stat.h>

#include "common/errors.h"
#include "common/files/package-image.h"
#include "common/files/whole-file.h"
#include "tests/support/run-program.h"
#include "tests/support/temporary-directory.h"

namespace
{
namespace fs = std::filesystem;
using common::PackageImage;
using testing::ElementsAre;
using testing::HasSubstr;

class PackageImageTest : public testing::Test
{
protected:
    PackageImageTest() { fs::create_directory(directory / "tree"); }
    std::string pack(const std::vector<std::string>& more = {})
    {
        std::vector<std::string> words = {"mksquashfs", "tree",         "image",       "-quiet",
                                          "-noappend",  "-no-tailends", "-no-progress"};
        words.insert(words.end(), more.begin(), more.end());
        EXPECT_EQ(runProgram(words, directory.path()).status, 0);
        return directory / "image";
    }
    static std::string whyNotListed(const std::string& path)
    {
        try {
            PackageImage(path).list();
            return "";
        } catch (const common::Failure& error) {
            return error.what();
        }
    }

    TemporaryDirectory directory;
};

TEST_F(PackageImageTest, ListsWhatIsInIt)
{
    fs::create_directory(directory / "tree/deep");
    writeBytes(directory / "tree/deep/file", "text");
    fs::create_symlink("deep/file", directory / "tree/link");
    ASSERT_EQ(mkfifo((directory / "tree/pipe").c_str(), 0600), 0);
    writeBytes(directory / "tree/empty", "");
    PackageImage image(pack());
    std::vector<std::string> told;
    for (const PackageImage::Entry& entry : image.list()) {
        told.push_back(std::to_string(static_cast<int>(entry.kind)) + " " + entry.path + " " +
                       std::to_string(entry.size) + entry.target);
    }
    EXPECT_THAT(told, ElementsAre("1 deep 0", "0 deep/file 4", "0 empty 0", "2 link 0deep/file", "3 pipe 0"));
    EXPECT_EQ(image.problemOf("pipe"), "is not a file but a pipe, a socket or a device");
    EXPECT_FALSE(image.open("link"));
    char text[8] = {};
    const PackageImage::Source source = image.open("deep/file");
    ASSERT_TRUE(source);
    EXPECT_EQ(source(text, sizeof text), 4U);
    EXPECT_STREQ(text, "text");
    EXPECT_EQ(source(text, sizeof text), 0U);
}

// All that the kernel mounts is read, whatever it is packed with.
TEST_F(PackageImageTest, ReadsWhatAnyCompressorHasPacked)
{
    std::mt19937 random(2);
    const auto noise = [&](std::size_t size, unsigned letters) {
        std::string text(size, '\0');
        std::generate(text.begin(), text.end(), [&] { return static_cast<char>(random() % letters); });
        return text;
    };
    // Literals and matches, short and long, near and far.
    std::string mixed;
    for (std::size_t piece = 0; mixed.size() < 400000; ++piece) {
        const std::size_t from = mixed.empty() ? 0 : random() % mixed.size();
        mixed += piece % 3 == 0 ? noise(random() % 600, 256) : mixed.substr(from, random() % 3000);
    }
    const std::map<std::string, std::string> files = {{"empty", ""},
                                                      {"zeros", std::string(200000, '\0')},
                                                      {"noise", noise(100000, 256)},
                                                      {"letters", noise(200000, 3)},
                                                      {"mixed", mixed},
                                                      {"small", "abcabcabcabcabcabcabcabcabc"}};
    for (const auto& [name, text] : files) {
        writeBytes(directory / "tree" / name, text);
    }
    const std::vector<std::vector<std::string>> ways = {
        {"gzip"},
        {"xz"},
        {"lz4"},
        {"zstd"},
        {"lzo"},
        {"lzo", "-Xalgorithm", "lzo1x_1"},
        {"lzo", "-Xalgorithm", "lzo1x_1_11"},
        {"lzo", "-Xalgorithm", "lzo1x_1_15", "-b", "1M"},
        {"lzo", "-Xcompression-level", "1", "-b", "4K"},
    };
    for (std::vector<std::string> way : ways) {
        const std::string told = testing::PrintToString(way);
        way.insert(way.begin(), "-comp");
        PackageImage image(pack(way));
        EXPECT_EQ(image.list().size(), files.size()) << told;
        for (const auto& [name, text] : files) {
            std::string read;
            EXPECT_TRUE(image.read(name,
                                   [&](const char* bytes, std::size_t count) {
                                       read.append(bytes, count);
                                       return true;
                                   }))
                << told << name;
            EXPECT_TRUE(read == text) << told << name;
        }
    }
}

// The kernel reads these tables before it mounts.
TEST_F(PackageImageTest, RefusesTablesThatTheKernelRefuses)
{
    writeBytes(directory / "tree/file", "text");
    struct Change {
        std::size_t place; // in the superblock
        char byte;
        const char* reason;
    };
    const Change changes[] = {
        {4, '\0', "has a damaged table of exported files"}, // how many files
        {27, '\xff', "has a damaged table of owners"},      // how many owners
        {41, '\x40', "is cut off: it says that it has"},    // its size
        {60, '\0', "has a damaged table of attributes"},    // where the tables are
        {90, '\x01', "has a damaged table of exported files"},
    };
    const std::string sound = common::readWhole(pack());
    for (const Change& change : changes) {
        std::string bytes = sound;
        ASSERT_NE(bytes[change.place], change.byte) << change.place;
        bytes[change.place] = change.byte;
        writeBytes(directory / "image", bytes);
        EXPECT_THAT(whyNotListed(directory / "image"), HasSubstr(change.reason)) << change.place;
    }
}

TEST_F(PackageImageTest, TakesTablesOfManyBlocks)
{
    for (int number = 0; number < 1500; ++number) {
        writeBytes(directory / "tree" / std::to_string(number), "text");
    }
    std::string owners;
    for (int number = 0; number < 1500; ++number) {
        owners += std::to_string(number) + " m 644 " + std::to_string(number) + " 0\n";
    }
    writeBytes(directory / "owners", owners);
    EXPECT_EQ(PackageImage(pack({"-pf", "owners"})).list().size(), 1500U);
    EXPECT_EQ(PackageImage(pack({"-no-exports", "-no-fragments"})).list().size(), 1500U);
}

// Some kilobytes that would fill a disk.
TEST_F(PackageImageTest, RefusesToListMoreBytesThanAPackageMayHold)
{
    writeBytes(directory / "tree/0", "");
    fs::resize_file(directory / "tree/0", std::uintmax_t{1} << 29);
    for (int copy = 1; copy < 8; ++copy) {
        fs::create_hard_link(directory / "tree/0", directory / "tree" / std::to_string(copy));
    }
    EXPECT_EQ(PackageImage(pack()).list().size(), 8U); // 4 GiB
    fs::create_hard_link(directory / "tree/0", directory / "tree/8");
    EXPECT_LT(fs::file_size(pack()), 100000U);
    EXPECT_EQ(whyNotListed(directory / "image"), "would unpack to more than 4 GiB: too much to look into");
}

TEST_F(PackageImageTest, RefusesToListMoreNamesThanAPackageMayHold)
{
    writeBytes(directory / "tree/0", "");
    for (std::size_t copy = 1; copy < PackageImage::kMostEntries; ++copy) {
        fs::create_hard_link(directory / "tree/0", directory / "tree" / std::to_string(copy));
    }
    EXPECT_EQ(whyNotListed(pack()), "");
    writeBytes(directory / "tree/x", "");
    EXPECT_EQ(whyNotListed(pack()), "holds more than 10000 files and directories: too many to look into");
}

TEST_F(PackageImageTest, RefusesDirectoriesThatLieTooDeep)
{
    std::string path = "d";
    std::string directories; // that stand in no file system, which would not have them
    for (int depth = 0; depth < 18; ++depth) {
        directories += path + " d 755 0 0\n";
        path += "/" + std::string(250, 'd');
    }
    writeBytes(directory / "directories", directories);
    EXPECT_THAT(whyNotListed(pack({"-pf", "directories"})), HasSubstr("too deep"));
}

TEST_F(PackageImageTest, SaysWhatIsNoPackage)
{
    ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(whyNotListed(directory / "pipe"), "is not a file but a pipe");
    EXPECT_THAT(whyNotListed(directory / "missing"), HasSubstr("cannot be opened: No such file"));
    writeBytes(directory / "text", std::string(5000, 'x'));
    EXPECT_THAT(whyNotListed(directory / "text"), HasSubstr("is no squashfs image, or a damaged one"));
}

// Wherever a byte is another one, it is read or refused; not a crash, nor an endless loop.
class DamagedPackage : public PackageImageTest, public testing::WithParamInterface<std::vector<std::string>>
{
};
INSTANTIATE_TEST_SUITE_P(Packed, DamagedPackage,
                         testing::Values(std::vector<std::string>{"-noI", "-noD"}, // most bytes matter
                                         std::vector<std::string>{"-comp", "lzo"}));

TEST_P(DamagedPackage, IsReadOrRefused)
{
    std::mt19937 random(1);
    fs::create_directory(directory / "tree/deep");
    writeBytes(directory / "tree/deep/file", std::string(3000, 'x'));
    writeBytes(directory / "tree/file", std::string(200000, 'y'));
    fs::create_symlink("deep/file", directory / "tree/link");
    const std::string sound = common::readWhole(pack(GetParam()));
    for (int round = 0; round < 1000; ++round) {
        std::string damaged = sound;
        for (unsigned int change = 0; change <= random() % 4; ++change) {
            const std::size_t place =
                random() % 2 == 0 ? random() % 96 : damaged.size() - 1 - random() % 4096;
            damaged[place] = static_cast<char>(random());
        }
        writeBytes(directory / "damaged", damaged);
        try {
            PackageImage image(directory / "damaged");
            for (const PackageImage::Entry& entry : image.list()) {
                image.read(entry.path, [](const char*, std::size_t) { return true; });
            }
        } catch (const common::Failure& error) {
            EXPECT_STRNE(error.what(), "");
        }
    }
}
} // namespace
