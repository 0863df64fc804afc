// Versions, image files and the checksum of the examples.
#include <cerrno>
#include <gtest/gtest.h>

#include "sdk/examples/common/firmware.h"
#include "tests/support/temporary-directory.h"
#include "tools/fwmod/files.h"

namespace
{
// ---- Versions ----

struct VersionCase {
    const char* offered;
    const char* installed;
    std::optional<int> verdict;
};

constexpr VersionCase kVersions[] = {
    {"1.1", "1.0", 1},
    {"1.0", "1.1", -1},
    {"1.10", "1.9", 1},
    {"1.9", "1.10", -1},
    {"1.1", "1.1.0", 0},
    {"1.01", "1.1", 0},
    {"2", "1.99.99.99", 1},
    {"1.0.0.1", "1", 1},
    {"999999999", "999999998", 1},
    {"0", "0.0", 0},
    {"", "1.0", std::nullopt},
    {"1.0", "", std::nullopt},
    {"1.", "1.0", std::nullopt},
    {".1", "1.0", std::nullopt},
    {"1..1", "1.0", std::nullopt},
    {"1.0.0.0.0", "1.0", std::nullopt},
    {"1.0.0.0.", "1.0", std::nullopt},
    {"1.x", "1.0", std::nullopt},
    {"-1", "1.0", std::nullopt},
    {" 1.1", "1.0", std::nullopt},
    {"1.1\n", "1.0", std::nullopt},
    {"1234567890", "1.0", std::nullopt},
};

TEST(Versions, AreComparedByTheirNumbers)
{
    for (const VersionCase& c : kVersions) {
        EXPECT_EQ(compareVersions(c.offered, c.installed), c.verdict) << c.offered << " over " << c.installed;
    }
}

// ---- Checksum ----

TEST(SystemCrc32, HasTheKnownValues)
{
    const unsigned char one = 1;
    EXPECT_EQ(systemCrc32(nullptr, 0), 0U);
    EXPECT_EQ(systemCrc32(&one, 1), 0x01B23CA3U);
}

TEST(SystemCrc32, IsTheDaemons)
{
    const TemporaryDirectory directory;
    std::string bytes;
    for (int i = 0; i < 100000; ++i) {
        bytes += static_cast<char>(i * 31 + i / 256);
    }
    writeBytes(directory / "image", bytes);
    auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    EXPECT_EQ(systemCrc32(data, bytes.size()), fwmod::imageChecksum(directory / "image"));
    EXPECT_EQ(systemCrc32(data + 777, bytes.size() - 777, systemCrc32(data, 777)),
              systemCrc32(data, bytes.size()));
}

// ---- Image files ----

std::vector<unsigned char> bytesOf(const std::string& text)
{
    return {text.begin(), text.end()};
}

bool isImage(const std::vector<unsigned char>& bytes)
{
    return parseImage(bytes.data(), bytes.size()).has_value();
}

TEST(ImageFile, ComesBackAsItWasWritten)
{
    const auto bytes = formatImage({"tuner", "1.1", {1, 2, 3, '\n', 0}});
    const auto image = parseImage(bytes.data(), bytes.size());
    ASSERT_TRUE(image);
    EXPECT_EQ(image->hardware, "tuner");
    EXPECT_EQ(image->version, "1.1");
    EXPECT_EQ(image->payload, (std::vector<unsigned char>{1, 2, 3, '\n', 0}));
}

TEST(ImageFile, OneWrongBitAnywhereIsNoticed)
{
    const auto good = formatImage({"tuner", "1.1", bytesOf("payload")});
    for (size_t i = good.size() - 7 - 9; i < good.size(); ++i) { // checksum, end of line, payload
        auto bad = good;
        bad[i] ^= 1;
        EXPECT_FALSE(isImage(bad)) << "byte " << i;
    }
}

TEST(ImageFile, EveryShorterOrLongerFileIsRefused)
{
    const auto good = formatImage({"tuner", "1.1", bytesOf("payload")});
    for (size_t size = 0; size < good.size(); ++size) {
        EXPECT_FALSE(isImage({good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size)})) << size;
    }
    auto longer = good;
    longer.push_back(0);
    EXPECT_FALSE(isImage(longer));
}

TEST(ImageFile, MalformedOnesAreRefused)
{
    const char* const malformed[] = {
        "\n",
        "tuner\n",
        "tuner 1.1 0 00000000\n",
        "tuner 1.1 -1 00000000\nx",
        "tuner  1.1 1 01b23ca3\n\x01",
        "tuner 1.1 99999999999999999999999 00000000\nx",
        "tuner 1.1 1 1b23ca3\n\x01",
        "tuner 1.1 +1 01b23ca3\n\x01",
    };
    for (const char* text : malformed) {
        EXPECT_FALSE(isImage(bytesOf(text))) << text;
        EXPECT_EQ(errno, EBADMSG);
    }
    EXPECT_TRUE(isImage(bytesOf("tuner 1.1 1 01b23ca3\n\x01"))) << "what the others deviate from";
    EXPECT_FALSE(isImage(std::vector<unsigned char>(100000, 'x')));
}

TEST(ImageFile, UnreadableAndOversizedFilesAreRefused)
{
    const TemporaryDirectory directory;
    EXPECT_FALSE(readImageFile(directory / "missing"));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(readImageFile(directory.path()));
    writeBytes(directory / "large", std::string(3 * 1024 * 1024, 'x'));
    EXPECT_FALSE(readImageFile(directory / "large"));
    EXPECT_EQ(errno, EFBIG);
}
} // namespace
