// The programs that the console runs to ask them something.
#include <chrono>
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

#include "vset/console/program.h"

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int64_t kLimitMs = 60'000;

std::optional<std::string> outputOf(const std::vector<std::string>& command, int64_t limitMs = kLimitMs)
{
    bool isDone = false;
    std::optional<std::string> answer;
    vset::runProgram(command, limitMs, [&](const std::optional<std::string>& output) {
        isDone = true;
        answer = output;
    });
    EXPECT_FALSE(isDone);
    while (!isDone) {
        g_main_context_iteration(nullptr, TRUE);
    }
    return answer;
}

TEST(Program, ThatEndsWellSaysAllThatItHasWritten)
{
    EXPECT_EQ(outputOf({"echo", "two words"}), "two words\n");
    EXPECT_EQ(outputOf({"true"}), "");
}

TEST(Program, ThatFailsOrIsNotThereSaysNothing)
{
    EXPECT_EQ(outputOf({"sh", "-c", "echo half; exit 1"}), std::nullopt);
    EXPECT_EQ(outputOf({"/nowhere/program"}), std::nullopt);
}

TEST(Program, ThatDoesNotEndIsEndedByItsLimit)
{
    EXPECT_EQ(outputOf({"sleep", "600"}, 100), std::nullopt);
}

// What it would write until its limit is as long as the PC is fast.
TEST(Program, ThatWritesWithoutEndIsEndedLongBeforeItsLimit)
{
    EXPECT_EQ(outputOf({"sh", "-c", "head -c 1048576 /dev/zero"})->size(), 1048576U);
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(outputOf({"sh", "-c", "head -c 1048577 /dev/zero; exec sleep 600"}), std::nullopt);
    EXPECT_LT(Clock::now() - begin, std::chrono::milliseconds(kLimitMs));
}

} // namespace
