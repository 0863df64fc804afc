// The rules that a platform is held to stand in the headers that its engineer reads.
#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>

#include "platform/check/findings.h"

namespace
{

// A file of platform/ in one line, with one blank between two words and without the marks of comments and
// lists.
std::string wordsOf(const std::string& source)
{
    std::ifstream in(PLATFORM + source);
    std::string text;
    for (std::string word; in >> word;) {
        const bool isMark = word == "*" || word == "//" || word == "/*" || word == "*/" || word == "-";
        text += isMark ? "" : word + " ";
    }
    return text;
}

bool isIn(const std::string& source, const std::string& rule)
{
    return wordsOf(source).find(rule) != std::string::npos;
}

TEST(PlatformFindings, EveryRuleStandsWhereItIsSaidToStand)
{
    for (const platformcheck::FindingKind& kind : platformcheck::findingKinds()) {
        EXPECT_GT(std::string(kind.rule).size(), 8U) << nameOf(kind.id);
        EXPECT_TRUE(isIn(kind.source, kind.rule))
            << nameOf(kind.id) << ", " << kind.source << ": " << kind.rule;
    }
    for (const platformcheck::Rule& rule : platformcheck::rules()) {
        EXPECT_TRUE(isIn(rule.source, rule.text)) << rule.source << ": " << rule.text;
        EXPECT_NE(rule.findings.empty(), std::string(rule.reason).empty()) << rule.text;
    }
}

TEST(PlatformFindings, EveryFindingBelongsToARuleOfTheTable)
{
    for (const platformcheck::FindingKind& kind : platformcheck::findingKinds()) {
        const auto has = [&](const platformcheck::Rule& rule) {
            return std::count(rule.findings.begin(), rule.findings.end(), kind.id) > 0;
        };
        EXPECT_TRUE(std::any_of(platformcheck::rules().begin(), platformcheck::rules().end(), has))
            << nameOf(kind.id);
    }
}

TEST(PlatformFindings, NumbersRiseAndAreFoundAgain)
{
    unsigned int before = 0;
    for (const platformcheck::FindingKind& kind : platformcheck::findingKinds()) {
        const auto number = static_cast<unsigned int>(kind.id);
        EXPECT_GT(number, before);
        EXPECT_EQ(platformcheck::findingWithNumber(number), kind.id);
        before = number;
    }
    EXPECT_EQ(platformcheck::findingWithNumber(999), std::nullopt);
}

} // namespace
