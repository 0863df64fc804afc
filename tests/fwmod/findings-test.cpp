// The rules that "fwmod check" holds a library to stand in the header that its maker reads.
#include <cctype>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>

#include "tools/fwmod/check/protocol/findings.h"

namespace
{

// The comments of the header in one line, with one blank between two words.
std::string wordsOfHeader()
{
    std::ifstream in(CONTROL_HEADER);
    std::string text;
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        for (std::string word; words >> word;) {
            text += word == "*" ? "" : word + " ";
        }
    }
    return text;
}

TEST(Findings, EveryRuleStandsInTheHeader)
{
    const std::string header = wordsOfHeader();
    ASSERT_THAT(header, testing::HasSubstr("A control library is"));
    for (const fwmod::FindingKind& kind : fwmod::findingKinds()) {
        EXPECT_GT(std::string(kind.rule).size(), 8U) << nameOf(kind.id);
        EXPECT_NE(header.find(kind.rule), std::string::npos) << nameOf(kind.id) << ": " << kind.rule;
    }
}

TEST(Findings, NumbersRiseAndAreFoundAgain)
{
    unsigned int before = 0;
    for (const fwmod::FindingKind& kind : fwmod::findingKinds()) {
        const auto number = static_cast<unsigned int>(kind.id);
        EXPECT_GT(number, before);
        EXPECT_EQ(fwmod::findingWithNumber(number), kind.id);
        before = number;
    }
    EXPECT_EQ(fwmod::findingWithNumber(999), std::nullopt);
}

} // namespace
