// Which power cuts "fwmod check" makes, and which of their failures count.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/fwmod/check/cut-survey.h"

namespace
{
using fwmod::CutSurvey;
using fwmod::CutTrial;
using fwmod::FindingId;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using Writes = CutSurvey::Writes;

using Trials = std::vector<CutTrial>;

// What the examiner tells of cuts at these writes, with the finding at some of them.
Trials trials(const Writes& writes, const Writes& failed = {}, FindingId id = FindingId::NoUpdateAfterCut)
{
    Trials list;
    for (const unsigned int write : writes) {
        list.push_back({write, true, {}, 0});
        if (failed.count(write) != 0) {
            list.back().findings.push_back({id, "at " + std::to_string(write)});
        }
    }
    return list;
}

Trials endedBefore(const Writes& writes)
{
    Trials list = trials(writes);
    for (CutTrial& trial : list) {
        trial.isCut = false;
    }
    return list;
}

TEST(CutSurvey, TakesEveryWriteOfASmallUpdate)
{
    EXPECT_THAT(CutSurvey(3, false).chosen(), ElementsAre(1, 2, 3));
    EXPECT_EQ(CutSurvey(300, false).chosen().size(), 300U);
    EXPECT_EQ(CutSurvey(5000, true).chosen().size(), 5000U);
}

TEST(CutSurvey, TakesThreeHundredOfALargeOneWithBothEnds)
{
    for (const unsigned int total : {301U, 662U, 5000U}) {
        const Writes chosen = CutSurvey(total, false).chosen();
        EXPECT_LE(chosen.size(), 300U) << total;
        EXPECT_GE(chosen.size(), 290U) << total;
        EXPECT_EQ(*chosen.begin(), 1U);
        EXPECT_EQ(*chosen.rbegin(), total);
        EXPECT_EQ(chosen.count(25) + chosen.count(total - 24), 2U);
    }
}

TEST(CutSurvey, IsOverWhenNothingFailed)
{
    CutSurvey survey(3, false);
    survey.addHasty(trials({1, 2, 3}));
    EXPECT_THAT(survey.openAtPace(), IsEmpty());
    EXPECT_THAT(survey.findings(), IsEmpty());
    EXPECT_EQ(survey.cuts(), 3U);
    EXPECT_EQ(survey.note(), "");
}

TEST(CutSurvey, FailureThatIsConfirmedNamesAllItsWrites)
{
    CutSurvey survey(5, false);
    survey.addHasty(trials({1, 2, 3, 4, 5}, {2, 3, 5}));
    EXPECT_THAT(survey.openAtPace(), ElementsAre(2, 3));
    survey.addAtPace(trials({2, 3}, {2, 3}));
    EXPECT_THAT(survey.openAtPace(), IsEmpty());
    EXPECT_THAT(survey.findings(),
                ElementsAre(Pair(FindingId::NoUpdateAfterCut, "at writes 2, 3 and 5 of 5: at 2")));
}

TEST(CutSurvey, FailureOfHasteDoesNotCountAndHidesNoOther)
{
    CutSurvey survey(5, false);
    survey.addHasty(trials({1, 2, 3, 4, 5}, {1, 2, 3, 5}));
    EXPECT_THAT(survey.openAtPace(), ElementsAre(1, 3));
    survey.addAtPace(trials({1, 3}));
    EXPECT_THAT(survey.openAtPace(), ElementsAre(2, 5)); // one of them may be true
    survey.addAtPace(trials({2, 5}, {5}, FindingId::DeadAfterCut));
    EXPECT_THAT(survey.openAtPace(), IsEmpty());
    EXPECT_THAT(survey.findings(), ElementsAre(Pair(FindingId::DeadAfterCut, "at write 5 of 5: at 5")));
}

TEST(CutSurvey, CutThatWasNotReachedIsMadeAtTheRealPace)
{
    CutSurvey survey(3, false);
    Trials hasty = trials({1});
    for (const CutTrial& trial : endedBefore({2, 3})) {
        hasty.push_back(trial);
    }
    survey.addHasty(hasty);
    EXPECT_THAT(survey.openAtPace(), ElementsAre(2, 3));
    Trials atPace = trials({2}, {2});
    atPace.push_back(endedBefore({3})[0]);
    survey.addAtPace(atPace);
    EXPECT_THAT(survey.openAtPace(), IsEmpty());
    EXPECT_THAT(survey.findings(), ElementsAre(Pair(FindingId::NoUpdateAfterCut, "at write 2 of 3: at 2")));
    EXPECT_EQ(survey.cuts(), 2U);
    EXPECT_EQ(survey.note(), "The power was cut at 2 of 3 writes; --every-write cuts it at each.");
}
} // namespace
