// When a record of the set's log was written: one reader for the story, the console and the driver.
#include <gtest/gtest.h>

#include "common/daemon/log-record.h"

namespace
{

std::optional<int64_t> timeOf(const char* text)
{
    common::LogRecord record;
    record.time = text;
    return common::microsecondsOf(record);
}

constexpr int64_t kNoon = 1'769'860'800'000'000; // of 31 January 2026

TEST(LogRecordTime, IsCountedInMicroseconds)
{
    EXPECT_EQ(timeOf("2026-01-31T12:00:00.000000Z"), kNoon);
    EXPECT_EQ(timeOf("2026-01-31T12:00:01.000002Z"), kNoon + 1'000'002);
    EXPECT_EQ(timeOf("1970-01-01T00:00:00.000000Z"), 0);
    EXPECT_EQ(timeOf("1969-12-31T23:59:59.750000Z"), -250'000);
}

TEST(LogRecordTime, MayHaveAnyNumberOfDecimals)
{
    EXPECT_EQ(timeOf("2026-01-31T12:00:00Z"), kNoon);
    EXPECT_EQ(timeOf("2026-01-31T12:00:00.5Z"), kNoon + 500'000);
    EXPECT_EQ(timeOf("2026-01-31T12:00:00.123456789Z"), kNoon + 123'456);
}

TEST(LogRecordTime, IsNothingWhenItIsNone)
{
    for (const char* bad :
         {"", "t", "2026-01-31", "2026-01-31T12:00:00", "2026-01-31T12:00:00.000000",
          "2026-13-31T12:00:00.000000Z", "2026-02-30T12:00:00.000000Z", "2026-01-31T12:60:00.000000Z",
          "2026-01-31T12:00:60.000000Z", "2026-01-31T12:00:00.x00000Z", "2026-01-31T12:00:00.000000Z ",
          "2026-01-31T12:00:00.000000+01:00"}) {
        EXPECT_EQ(timeOf(bad), std::nullopt) << bad;
    }
}

} // namespace
