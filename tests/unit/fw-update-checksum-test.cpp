// The fast checksum beside its two definitions: the template with the parameters, and the division bit by
// bit.
#include <algorithm>
#include <boost/crc.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <thread>
#include <vector>

#include "src/src/fw-update-checksum.h"

namespace
{

using Bytes = std::vector<unsigned char>;

uint32_t templateChecksum(const Bytes& bytes)
{
    boost::crc_optimal<32, 0x01B23CA3, 0, 0, false, false> crc;
    crc.process_bytes(bytes.data(), bytes.size());
    return crc.checksum();
}

uint32_t bitwiseChecksum(const Bytes& bytes)
{
    uint32_t checksum = 0;
    for (const unsigned char byte : bytes) {
        checksum ^= static_cast<uint32_t>(byte) << 24;
        for (int bit = 0; bit < 8; ++bit) {
            checksum = (checksum << 1) ^ ((checksum & 0x80000000u) != 0 ? 0x01B23CA3u : 0);
        }
    }
    return checksum;
}

uint32_t checksumOf(const Bytes& bytes)
{
    return extendChecksum(0, bytes.data(), bytes.size());
}

class FWUpdateChecksum : public testing::Test
{
protected:
    size_t upTo(size_t limit) { return std::uniform_int_distribution<size_t>(0, limit)(generator); }

    // Few different values as often as many: a table is wrong in one place first.
    Bytes randomBytes(size_t count)
    {
        const size_t values = upTo(3) == 0 ? 1 : 255;
        Bytes bytes(count);
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<unsigned char>(upTo(values)); });
        return bytes;
    }

    // In pieces of random sizes, also of none.
    uint32_t checksumInPieces(const Bytes& bytes)
    {
        uint32_t checksum = 0;
        for (size_t done = 0; done < bytes.size();) {
            const size_t count = std::min(upTo(40), bytes.size() - done);
            checksum = extendChecksum(checksum, bytes.data() + done, count);
            done += count;
        }
        return checksum;
    }

    std::mt19937 generator{1}; // always the same
};

TEST_F(FWUpdateChecksum, OfNothingIsWhatWasThere)
{
    EXPECT_EQ(extendChecksum(0, nullptr, 0), 0u);
    EXPECT_EQ(extendChecksum(0x12345678, nullptr, 0), 0x12345678u);
}

TEST_F(FWUpdateChecksum, OfEveryByteInEveryPlaceEqualsBothDefinitions)
{
    for (size_t place = 0; place < 33; ++place) {
        for (int value = 0; value < 256; ++value) {
            Bytes bytes(33);
            bytes[place] = static_cast<unsigned char>(value);
            ASSERT_EQ(checksumOf(bytes), templateChecksum(bytes)) << place << " " << value;
            ASSERT_EQ(checksumOf(bytes), bitwiseChecksum(bytes)) << place << " " << value;
        }
    }
}

TEST_F(FWUpdateChecksum, OfRandomBytesEqualsBothDefinitions)
{
    for (int round = 0; round < 3000; ++round) {
        const Bytes bytes = randomBytes(upTo(round % 10 == 0 ? 5000 : 100));
        ASSERT_EQ(checksumOf(bytes), templateChecksum(bytes)) << round;
        ASSERT_EQ(checksumOf(bytes), bitwiseChecksum(bytes)) << round;
    }
}

TEST_F(FWUpdateChecksum, IsTheSameInPieces)
{
    for (int round = 0; round < 3000; ++round) {
        const Bytes bytes = randomBytes(upTo(400));
        ASSERT_EQ(checksumInPieces(bytes), templateChecksum(bytes)) << round;
    }
}

TEST_F(FWUpdateChecksum, IsTheSameFromAnyAddress)
{
    const Bytes bytes = randomBytes(200);
    for (size_t start = 0; start < 17; ++start) {
        const Bytes part(bytes.begin() + static_cast<std::ptrdiff_t>(start), bytes.end());
        EXPECT_EQ(extendChecksum(0, bytes.data() + start, bytes.size() - start), bitwiseChecksum(part))
            << start;
    }
}

TEST_F(FWUpdateChecksum, IsTheSameOnThreadsThatNeedItFirst)
{
    const Bytes bytes = randomBytes(100);
    std::vector<uint32_t> checksums(8);
    std::vector<std::thread> threads;
    for (uint32_t& checksum : checksums) {
        threads.emplace_back([&] { checksum = checksumOf(bytes); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(checksums, testing::Each(bitwiseChecksum(bytes)));
}

} // namespace
