// The whole television: the daemon is started by the set, reboots and power-offs are carried out.
#include "tests/service/support/service-test.h"

namespace service
{
namespace
{

using testing::SizeIs;

class WholeTelevision : public ServiceTest
{
};

TEST_F(WholeTelevision, RebootsWhenItIsSwitchedOnDuringAnUpdateAndUpdatesLater)
{
    installPending("alpha", scriptOf("milliseconds", 60'000), {"1.1", 90, "none"});
    tv.switchOnWhole();
    tv.waitForState(5);
    goToStandby();
    waitForCall("alpha doUpdate(");
    tv.write("/var/lib/hardware/alpha.json", "{}"); // the next update is a quick one
    tv.setPower(kNormal);
    tv.waitForText("prev_state [2] cur_state[0] try reboot");

    tv.waitForText("service initialize", 2);
    tv.reconnect();
    EXPECT_EQ(tv.platform().snapshot()["power"]["state"], kNormal);
    tv.waitForText("alpha Firmware Expected Time Check Done", 3); // the standby before counted, too
    EXPECT_FALSE(wasWritten("alpha"));
    goToStandby();
    tv.waitUntil([&] { return tv.countOf("service finalize") == 2; }, "the second run ends");
    EXPECT_TRUE(wasWritten("alpha"));
    tv.waitForPlatform([](const Json::Value& set) { return set["locks"]["held"].empty(); },
                       "the lock is freed");

    ASSERT_THAT(tv.platform().snapshot()["reboots"], SizeIs(1));
    EXPECT_EQ(tv.platform().snapshot()["reboots"][0]["reason"].asInt64(), 0x20000020);
    tv.platform().powerOff(0);
    EXPECT_EQ(tv.waitForEnd(), 0);
}

TEST_F(WholeTelevision, StaysOnWhenTheDaemonHasNothingToDo)
{
    tv.installExample("tuner");
    tv.feedFile("empTuner", Television::examplePackage("empTuner", "1.1"));
    tv.switchOnWhole();
    tv.waitForText("service finalize");
    tv.waitForPlatform(
        [](const Json::Value& set) { return set["packages"]["requests"][0]["state"] == "delivered"; },
        "the package is delivered");
    tv.platform().reboot(0); // and the next boot finds it
    tv.waitForText("service initialize", 2);
    tv.waitForState(5);
    EXPECT_EQ(tv.read(kListFile), "tuner empTuner\n");
    tv.reconnect();
    tv.platform().powerOff(0);
    EXPECT_EQ(tv.waitForEnd(), 0);
    EXPECT_TRUE(tv.said("Try allDoUpdateDone"));
    EXPECT_EQ(tv.countOf("service finalize"), 2U);
}

} // namespace
} // namespace service
