// The upgrade UI's offer: what it shows and what its buttons do.
#include <gtest/gtest.h>

#include "vset/upgrade-ui/offer.h"

namespace
{

using upgradeUI::Offer;
using upgradeUI::View;
using Extras = std::map<std::string, std::string>;

const Extras kSelect{{"uitype", "select"}};

std::string buttonsOf(const Offer& offer)
{
    const Json::Value screen = offer.screen();
    std::string names;
    for (const Json::Value& button : screen["buttons"]) {
        names += button["id"].asString() + " ";
    }
    return names;
}

TEST(Offer, OneToSelectCanBeDeclined)
{
    Offer offer({{"uitype", "select"}, {"timeinfo", "14"}});
    EXPECT_EQ(buttonsOf(offer), "accept decline close ");
    EXPECT_NE(offer.line().find("about 14 seconds"), std::string::npos);
    EXPECT_EQ(offer.click("decline"), upgradeUI::kClosed);
    EXPECT_EQ(offer.view(), View::Closed);
    EXPECT_EQ(offer.click("accept"), 0) << "too late";
}

TEST(Offer, ARequiredOneCanOnlyBeAccepted)
{
    Offer offer({{"uitype", "force"}, {"timeinfo", "14"}});
    EXPECT_EQ(buttonsOf(offer), "accept ");
    EXPECT_EQ(offer.click("decline"), 0);
    EXPECT_EQ(offer.click("close"), 0);
    EXPECT_EQ(offer.view(), View::Offered);
    EXPECT_EQ(offer.click("accept"), upgradeUI::kAccepted);
}

TEST(Offer, ARunningUpdateHasNoButtonAndIsClosedAtItsEnd)
{
    Offer offer(kSelect);
    offer.click("accept");
    EXPECT_TRUE(offer.takeStatus(upgradeUI::kRunning));
    EXPECT_EQ(buttonsOf(offer), "");
    EXPECT_EQ(offer.click("close"), 0);
    EXPECT_TRUE(offer.takeStatus(upgradeUI::kFinished));
    EXPECT_EQ(buttonsOf(offer), "close ");
    EXPECT_EQ(offer.click("close"), upgradeUI::kClosed);
}

TEST(Offer, AnswersThatSomebodyElseGivesCount)
{
    Offer offer(kSelect);
    EXPECT_TRUE(offer.takeStatus(upgradeUI::kAccepted));
    EXPECT_EQ(offer.view(), View::Accepted);
    EXPECT_FALSE(offer.takeStatus(upgradeUI::kClosed)) << "not while the update is on its way";
}

TEST(Offer, ProgressOnlyGrowsAndEndsAtAHundred)
{
    Offer offer(kSelect);
    EXPECT_TRUE(offer.takeProgress(40));
    EXPECT_FALSE(offer.takeProgress(30));
    EXPECT_FALSE(offer.takeProgress(150));
    EXPECT_EQ(offer.screen()["progress"].asInt(), 40);
}

TEST(Offer, ATimeThatIsNoneIsAMoment)
{
    for (const char* time : {"", "-1", "0", "soon", "99999999999999999999"}) {
        EXPECT_EQ(Offer(Extras{{"timeinfo", time}}).seconds(), 0) << time;
    }
}

} // namespace
