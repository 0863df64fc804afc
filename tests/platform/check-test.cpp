// What tarnwick-platform-check finds of each platform of the corpus, by the table
// platform/check/corpus/found: its own fault, and nothing of those that are only unusual. In a virtual set,
// as its root. How the check is called, and what it says and does, is in tests/platform-check/.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <json/json.h>
#include <set>
#include <sstream>

#include "tests/support/run-program.h"

namespace
{

// A line: the platform, what must be found ("nothing" if it breaks no rule), and the trials that it has to do
// with.
struct Row {
    std::string platform;
    std::string finding;
    std::vector<std::string> trials;
};

std::vector<Row> table()
{
    std::vector<Row> rows;
    std::ifstream file(CORPUS "/found");
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        Row row;
        if (line.empty() || line[0] == '#' || !(words >> row.platform >> row.finding)) {
            continue;
        }
        for (std::string trial; words >> trial;) {
            row.trials.push_back(trial);
        }
        rows.push_back(row);
    }
    return rows;
}

void PrintTo(const Row& row, std::ostream* stream)
{
    *stream << row.platform;
}

class Found : public testing::TestWithParam<Row>
{
};

TEST_P(Found, ByTheTable)
{
    std::vector<std::string> command = {CHECK,
                                        "--json",
                                        "--application",
                                        "com.olvessa.tv.firmware.update", // which a virtual set answers for
                                        "--preload",
                                        PLATFORMS "/" + GetParam().platform + ".so"};
    for (const std::string& trial : GetParam().trials) {
        command.insert(command.end(), {"--trial", trial});
    }
    const Outcome outcome = runProgram(command);
    Json::Value report;
    ASSERT_TRUE(std::istringstream(outcome.out) >> report) << outcome.err;
    std::set<std::string> found;
    for (const Json::Value& finding : report["findings"]) {
        found.insert(finding["id"].asString());
    }
    if (GetParam().finding == "nothing") {
        EXPECT_TRUE(found.empty()) << outcome.out;
    } else {
        EXPECT_EQ(found.count(GetParam().finding), 1U) << outcome.out;
    }
}

INSTANTIATE_TEST_SUITE_P(, Found, testing::ValuesIn(table()), [](const auto& tried) {
    std::string name = tried.param.platform;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

// A platform that is not built would be missing from the table unseen.
TEST(Table, NamesPlatformsOfTheCorpus)
{
    for (const Row& row : table()) {
        EXPECT_TRUE(std::filesystem::exists(PLATFORMS "/" + row.platform + ".so")) << row.platform;
        EXPECT_FALSE(row.trials.empty()) << row.platform;
    }
    EXPECT_GT(table().size(), 60U);
}

} // namespace
