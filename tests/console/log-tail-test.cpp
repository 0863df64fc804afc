// The console's look at the set's log. Each test runs in a set of its own.
#include <fstream>
#include <gtest/gtest.h>
#include <string>

#include "vset/console/log-tail.h"

namespace
{

void writeRecords(int first, int count)
{
    std::ofstream log(vset::kLogFile, std::ios::app);
    for (int number = first; number < first + count; ++number) {
        log << "2026-11-21 10:00:00.000\t2\t4\tTARNWICK\t7\t7\tmain\t\t\t0\trecord " << number << "\n";
    }
}

TEST(LogTail, ReadsAShortLogWhole)
{
    writeRecords(0, 10);
    vset::LogTail tail;
    int told = 0;
    tail.record.connect(
        [&](const vset::LogRecord& record) { EXPECT_EQ(record.text, "record " + std::to_string(told++)); });
    tail.start();
    EXPECT_EQ(told, 10);
    EXPECT_EQ(tail.count(), 10U);
}

// A set that has been used for long must not boot slower for it.
TEST(LogTail, ReadsTheEndOfALongLogInWholeRecords)
{
    constexpr int kRecords = 40'000;
    writeRecords(0, kRecords);
    vset::LogTail tail;
    int told = 0;
    int first = 0;
    tail.record.connect([&](const vset::LogRecord& record) {
        const int number = std::stoi(record.text.substr(std::string("record ").size()));
        if (told++ == 0) {
            first = number;
        }
        EXPECT_EQ(number, first + told - 1);
    });
    tail.start();
    while (first + told < kRecords) { // a busy PC reads the rest at its next looks
        g_main_context_iteration(nullptr, TRUE);
    }
    EXPECT_GT(told, 1000);
    EXPECT_LT(told, kRecords / 4);
    EXPECT_EQ(first + told, kRecords);

    writeRecords(kRecords, 1);
    while (first + told == kRecords) {
        g_main_context_iteration(nullptr, TRUE);
    }
    EXPECT_EQ(tail.latest().back().text, "record " + std::to_string(kRecords));
}

} // namespace
