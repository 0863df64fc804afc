// A service of the set crashes and is started again, as on a television: what the daemon sees of it, and what
// is still there afterwards.
#include "tests/service/support/service-test.h"

namespace service
{
namespace
{

using std::chrono::milliseconds;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kPlatform = "org.pellor.platform";
constexpr const char* kMounts = "org.pellor.psmount";
constexpr milliseconds kSoon{300};

class Crash : public ServiceTest
{
protected:
    void crashAndComeBack(const std::string& program, const std::string& busName)
    {
        const std::string owner = tv.ownerOf(busName);
        tv.crashService(program, kSoon);
        tv.waitForService(busName, owner);
    }
};

TEST_F(Crash, OfThePlatformKeepsWhatHoldsUntilTheNextBoot)
{
    tv.switchOn();
    tv.platform().setSetting(kMirroringKey, 7);
    tv.platform().setSetting("kept/key", 8);
    tv.platform().setProperty(128, "ABC-DEF-1");
    tv.setPower(kStandby);
    tv.raiseFlag(kDownloadFlag);
    const Json::Value before = tv.platform().snapshot();

    crashAndComeBack("platformd", kPlatform);
    const Json::Value after = tv.platform().snapshot();
    for (const char* section : {"settings", "properties", "boot"}) {
        EXPECT_EQ(after[section], before[section]) << section;
    }
    EXPECT_EQ(after["flags"]["raised"], before["flags"]["raised"]);
    EXPECT_EQ(after["power"]["state"], kStandby);
    EXPECT_EQ(after["power"]["since_ms"], before["power"]["since_ms"]);
    EXPECT_TRUE(after["packages"]["manager_ready"].asBool());

    tv.switchOff(); // and no longer
    tv.switchOn();
    const Json::Value next = tv.platform().snapshot();
    EXPECT_EQ(next["settings"][kMirroringKey]["value"], 0);
    EXPECT_EQ(next["settings"]["kept/key"]["value"], 8);
    EXPECT_THAT(next["flags"]["raised"], SizeIs(0));
    EXPECT_EQ(next["power"]["state"], kNormal);
    EXPECT_EQ(next["boot"]["count"].asUInt(), before["boot"]["count"].asUInt() + 1);
}

// The daemon's subscriptions are the bus's, so events reach it again; what it held of the platform is gone.
TEST_F(Crash, OfThePlatformIsOverWhenTheUpdateIsDue)
{
    installPending("alpha");
    startPending();
    crashAndComeBack("platformd", kPlatform);
    EXPECT_THAT(tv.platform().snapshot()["watchdog"]["registered"], IsEmpty());
    EXPECT_TRUE(tv.daemonRuns());
    goToStandby();
    expectEnd();
    EXPECT_TRUE(wasWritten("alpha"));
}

TEST_F(Crash, OfThePlatformAtTheStartIsAStartWithoutIt)
{
    installPending("alpha");
    tv.switchOn();
    const std::string owner = tv.ownerOf(kPlatform);
    tv.crashService("platformd", std::chrono::hours(1));
    EXPECT_EQ(tv.ownerOf(kPlatform), "");
    tv.startDaemon();
    tv.waitForText("need update item, wait ui or bg fw update\n");
    EXPECT_TRUE(tv.said("Unable to read SW version from sysprop"));
    EXPECT_TRUE(tv.said("Error: EMP ABM_DownloadAppBinary fail.(empalpha)"));
    EXPECT_TRUE(tv.daemonRuns());
}

TEST_F(Crash, OfTheMountServiceLosesNoMountAndNoLaterUpdate)
{
    installPending("alpha");
    startPending();
    const std::vector<std::string> mounts = tv.loopMounts();
    EXPECT_THAT(mounts, SizeIs(1));
    crashAndComeBack("psmountd", kMounts);
    EXPECT_EQ(tv.loopMounts(), mounts);
    goToStandby();
    expectEnd();
    EXPECT_TRUE(wasWritten("alpha"));
    EXPECT_THAT(tv.loopMounts(), IsEmpty());
}

TEST_F(Crash, OfTheMountServiceAtTheUpdateFailsItOnce)
{
    installPending("alpha");
    startPending();
    tv.crashService("psmountd", std::chrono::hours(1));
    goToStandby();
    expectEnd();
    EXPECT_TRUE(tv.said("Error: Firmware EMP Mount Fail.(empalpha)"));
    EXPECT_FALSE(wasWritten("alpha"));
    EXPECT_TRUE(tv.exists(Television::packagePath("empalpha")));
}

TEST_F(Crash, OfAWholeTelevisionsPlatformLeavesItOn)
{
    installPending("alpha");
    tv.switchOnWhole();
    tv.waitForState(5);
    const std::string owner = tv.ownerOf(kPlatform);
    tv.killService("platformd"); // by no order, hence started again at once
    tv.reconnect();
    tv.waitForService(kPlatform, owner);
    goToStandby();
    tv.waitForText("service finalize");
    EXPECT_TRUE(wasWritten("alpha"));
    EXPECT_EQ(tv.countOf("service initialize"), 1U);
    tv.platform().powerOff(0);
    EXPECT_EQ(tv.waitForEnd(), 0);
}

} // namespace
} // namespace service
