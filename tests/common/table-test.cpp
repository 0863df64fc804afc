// Columns on a terminal.
#include <gtest/gtest.h>

#include "common/terminal/table.h"

namespace
{

std::string printed(const common::Table& table, const char* nothing = "nothing is there")
{
    testing::internal::CaptureStdout();
    table.print(nothing);
    return testing::internal::GetCapturedStdout();
}

TEST(Table, AlignsColumnsByWhatIsSeen)
{
    common::Table table({"NAME", "VERSION"});
    table.add({"Grüße", "1"});
    table.add({"電視", "2"});
    table.add({"tuner", "10.2"});
    EXPECT_EQ(printed(table), "  NAME   VERSION\n"
                              "  Grüße  1\n"
                              "  電視   2\n"
                              "  tuner  10.2\n");
}

TEST(Table, SaysThatItIsEmpty)
{
    EXPECT_EQ(printed(common::Table({"NAME"})), "  nothing is there\n");
}

TEST(Table, ShowsForeignTextInOneLine)
{
    common::Table table({"NAME"});
    table.add({"a\nb\033[31m"});
    EXPECT_EQ(printed(table), "  NAME\n  a\\nb\\x1B[31m\n");
}

} // namespace
