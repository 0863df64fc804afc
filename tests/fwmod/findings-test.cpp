// The rules that "fwmod check" holds a library to stand in the header that its maker reads.
#include <algorithm>
#include <cctype>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <regex>
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
    for (const fwmod::FindingKind& kind : fwmod::findingsTable().kinds()) {
        EXPECT_GT(std::string(kind.rule).size(), 8U) << fwmod::findingsTable().nameOf(kind.id);
        EXPECT_NE(header.find(kind.rule), std::string::npos)
            << fwmod::findingsTable().nameOf(kind.id) << ": " << kind.rule;
    }
}

TEST(Findings, EveryFindingBelongsToARuleOfTheTable)
{
    const std::string header = wordsOfHeader();
    for (const fwmod::Rule& rule : fwmod::findingsTable().rules()) {
        EXPECT_NE(header.find(rule.text), std::string::npos) << rule.text;
        EXPECT_NE(rule.findings.empty(), std::string(rule.reason).empty()) << rule.text;
    }
    for (const fwmod::FindingKind& kind : fwmod::findingsTable().kinds()) {
        const auto has = [&](const fwmod::Rule& rule) {
            return std::count(rule.findings.begin(), rule.findings.end(), kind.id) > 0;
        };
        EXPECT_TRUE(
            std::any_of(fwmod::findingsTable().rules().begin(), fwmod::findingsTable().rules().end(), has))
            << fwmod::findingsTable().nameOf(kind.id);
    }
}

// A sentence that bids something has a rule in the table, so that none is stated and forgotten.
TEST(Findings, EveryBiddingSentenceOfTheHeaderIsInTheTable)
{
    const std::regex bids(
        "\\b([Mm]ust|[Dd]o not|[Nn]ever|[Aa]lways|[Ll]et|[Nn]o (exception|function)|[Cc]lose|[Tt]reat|"
        "[Rr]ead it|[Rr]ead back|[Cc]heck it|[Kk]eep|[Mm]ake|[Gg]uard|[Cc]opy|[Cc]hoose|[Ff]lush|set "
        "errno|(return|answer) within|leave|[Ww]rite in|wait for|free nothing|compare again)\\b");
    const std::string text = wordsOfHeader();
    const std::string comments = text.substr(0, text.find("The types of the functions above"));
    const std::regex end("[.] (?=[A-Z-])");
    unsigned int bidding = 0;
    for (std::sregex_token_iterator at(comments.begin(), comments.end(), end, -1), none; at != none; ++at) {
        const std::string sentence = at->str() + ".";
        if (!std::regex_search(sentence, bids)) {
            continue;
        }
        ++bidding;
        const auto isIn = [&](const fwmod::Rule& rule) {
            return sentence.find(rule.text) != std::string::npos;
        };
        EXPECT_TRUE(
            std::any_of(fwmod::findingsTable().rules().begin(), fwmod::findingsTable().rules().end(), isIn))
            << sentence;
    }
    EXPECT_GT(bidding, 25U);
}

TEST(Findings, NumbersRiseAndAreFoundAgain)
{
    unsigned int before = 0;
    for (const fwmod::FindingKind& kind : fwmod::findingsTable().kinds()) {
        const auto number = static_cast<unsigned int>(kind.id);
        EXPECT_GT(number, before);
        EXPECT_EQ(fwmod::findingsTable().withNumber(number), kind.id);
        before = number;
    }
    EXPECT_EQ(fwmod::findingsTable().withNumber(999), std::nullopt);
}

} // namespace
