// The rules that a platform is held to stand in the headers that its engineer reads.
#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>

#include "platform/check/findings.h"

namespace
{

// A file of the source tree in one line, with one blank between two words and without the marks of comments
// and lists.
std::string wordsOf(const std::string& source)
{
    std::ifstream in(SOURCES + source);
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
    for (const platformcheck::FindingKind& kind : platformcheck::findingsTable().kinds()) {
        EXPECT_GT(std::string(kind.rule).size(), 8U) << platformcheck::findingsTable().nameOf(kind.id);
        EXPECT_TRUE(isIn(kind.source, kind.rule))
            << platformcheck::findingsTable().nameOf(kind.id) << ", " << kind.source << ": " << kind.rule;
    }
    for (const platformcheck::Rule& rule : platformcheck::findingsTable().rules()) {
        EXPECT_TRUE(isIn(rule.source, rule.text)) << rule.source << ": " << rule.text;
        EXPECT_NE(rule.findings.empty(), std::string(rule.reason).empty()) << rule.text;
    }
}

TEST(PlatformFindings, EveryFindingBelongsToARuleOfTheTable)
{
    for (const platformcheck::FindingKind& kind : platformcheck::findingsTable().kinds()) {
        const auto has = [&](const platformcheck::Rule& rule) {
            return std::count(rule.findings.begin(), rule.findings.end(), kind.id) > 0;
        };
        EXPECT_TRUE(std::any_of(platformcheck::findingsTable().rules().begin(),
                                platformcheck::findingsTable().rules().end(), has))
            << platformcheck::findingsTable().nameOf(kind.id);
    }
}

TEST(PlatformFindings, NumbersRiseAndAreFoundAgain)
{
    unsigned int before = 0;
    for (const platformcheck::FindingKind& kind : platformcheck::findingsTable().kinds()) {
        const auto number = static_cast<unsigned int>(kind.id);
        EXPECT_GT(number, before);
        EXPECT_EQ(platformcheck::findingsTable().withNumber(number), kind.id);
        before = number;
    }
    EXPECT_EQ(platformcheck::findingsTable().withNumber(999), std::nullopt);
}

} // namespace
