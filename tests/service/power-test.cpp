// Standby, the first ten minutes, switching on, mirroring, the factory, power-off.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/service/support/service-test.h"

namespace service
{
namespace
{

using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kTryUpdate = "prev_state [0] cur_state[2] try fw update";
constexpr const char* kHeldBack = "Mirrovex or ProductMode, not try update";
constexpr int kUnwatched = 3; // switched off, but not to standby

class Power : public ServiceTest
{
protected:
    // Waits for the first standby's update to be in the middle of its write.
    void waitForWrite()
    {
        tv.waitUntil([&] { return tv.said("========== [ alpha update start ] =========="); },
                     "the write begins");
    }

    // Whether the daemon may start further threads. Only its own user may tell it without being the
    // machine's.
    void allowThreads(bool isAllowed)
    {
        const auto daemon = static_cast<pid_t>(daemonNumber("Pid"));
        const unsigned int user = daemonNumber("Uid");
        const unsigned int group = daemonNumber("Gid");
        const pid_t child = fork();
        if (child == 0) {
            rlimit limit = {};
            const bool isUser = setresgid(group, group, group) == 0 && setresuid(user, user, user) == 0;
            const bool isKnown = isUser && prlimit(daemon, RLIMIT_NPROC, nullptr, &limit) == 0;
            limit.rlim_cur = isAllowed ? limit.rlim_max : 1;
            _exit(isKnown && prlimit(daemon, RLIMIT_NPROC, &limit, nullptr) == 0 ? 0 : 1);
        }
        int status = -1;
        waitpid(child, &status, 0);
        ASSERT_EQ(status, 0);
    }
    unsigned int daemonNumber(const std::string& key)
    {
        const std::string status = tv.daemonStatus();
        return static_cast<unsigned int>(
            std::stoul(status.substr(status.find("\n" + key + ":") + key.size() + 2)));
    }

    Json::Value reboots() { return tv.platform().snapshot()["reboots"]; }
};

// ---- The first ten minutes ----

class GracePeriod : public Power, public testing::WithParamInterface<int>
{
};

TEST_P(GracePeriod, EndsTheServiceAtAPowerChange)
{
    const int state = GetParam();
    const bool isOff = state >= 2 && state <= 4;
    installPending("alpha");
    startPending();
    tv.freezeAfterStart(599.5);
    tv.setPower(state);
    expectEnd();
    EXPECT_TRUE(tv.said("599 seconds since the service started, try to update from 10 minutes later"));
    EXPECT_EQ(
        tv.said("call allupdatedone only when power is off cur_power_state[" + std::to_string(state) + "]"),
        isOff);
    EXPECT_EQ(wasAsked("alpha allUpdateDone()"), isOff);
    EXPECT_FALSE(tv.said("Try doUpdateFirmwareAll"));
    EXPECT_FALSE(wasWritten("alpha"));
    EXPECT_TRUE(tv.exists(Television::packagePath("empalpha"))); // for the next start
}

INSTANTIATE_TEST_SUITE_P(Power, GracePeriod, testing::Values(1, 2, 3, 4), testing::PrintToStringParamName());

TEST_F(Power, TenMinutesAfterTheStartStandbyUpdates)
{
    installPending("alpha");
    startPending();
    tv.freezeAfterStart(600.1);
    tv.setPower(kStandby);
    tv.waitForText(kTryUpdate);
    tv.setClockRate(1);
    expectEnd();
    EXPECT_TRUE(wasWritten("alpha"));
}

TEST_F(Power, TheTenMinutesBeginWithTheService)
{
    installPending("alpha");
    tv.switchOn();
    tv.jump(3600); // the set has been on for an hour
    tv.startDaemon();
    tv.waitForState(5);
    tv.setPower(kStandby);
    expectEnd();
    EXPECT_FALSE(tv.said(kTryUpdate));
    EXPECT_FALSE(wasWritten("alpha"));
}

// ---- During an update ----

TEST_F(Power, ASecondStandbyStartsNothingNew)
{
    installPending("alpha", scriptOf("milliseconds", 2000));
    startPending();
    goToStandby();
    waitForWrite();
    tv.setPower(kUnwatched);
    tv.setPower(kNormal); // from there no reboot is asked for
    tv.setPower(kStandby);
    expectEnd();
    EXPECT_EQ(tv.countOf(kTryUpdate), 1U);
    EXPECT_EQ(tv.countOf("Try doUpdateFirmwareAll"), 1U);
    EXPECT_TRUE(wasWritten("alpha"));
    EXPECT_THAT(reboots(), IsEmpty());
}

TEST_F(Power, AStandbyWithoutAThreadForItsUpdateLeavesItToTheNext)
{
    installPending("alpha");
    startPending();
    tv.jump(600);
    allowThreads(false);
    tv.setPower(kStandby);
    tv.waitForText(kTryUpdate);
    tv.platform().setSetting(kMirroringKey, 2);
    tv.waitForText(std::string("[") + kMirroringKey + "] pralis get value : [2]"); // behind the standby
    allowThreads(true);
    tv.setPower(kNormal); // no update runs, so no reboot is asked for
    tv.setPower(kStandby);
    expectEnd();
    EXPECT_EQ(tv.countOf(kTryUpdate), 2U);
    EXPECT_TRUE(wasWritten("alpha"));
    EXPECT_THAT(reboots(), IsEmpty());
}

class SwitchedOn : public Power, public testing::WithParamInterface<int>
{
};

TEST_P(SwitchedOn, DuringAnUpdateAsksForAReboot)
{
    installPending("alpha", scriptOf("milliseconds", 20'000), {"1.1", 60, "none"});
    startPending();
    goToStandby();
    waitForWrite();
    if (GetParam() != kStandby) {
        tv.setPower(GetParam());
    }
    tv.setPower(kNormal);
    expectEnd();
    EXPECT_TRUE(tv.said("prev_state [" + std::to_string(GetParam()) + "] cur_state[0] try reboot"));
    ASSERT_THAT(reboots(), SizeIs(1));
    EXPECT_EQ(reboots()[0]["kind"], "reboot");
    EXPECT_EQ(reboots()[0]["reason"].asInt64(), 0x20000020);
    EXPECT_FALSE(wasWritten("alpha"));
    EXPECT_THAT(tv.platform().snapshot()["locks"]["held"], IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Power, SwitchedOn, testing::Values(2, 4), testing::PrintToStringParamName());

TEST_F(Power, SwitchingOnWithoutAnUpdateDoesNothing)
{
    installPending("alpha");
    tv.switchOn();
    tv.setPower(kStandby);
    tv.startDaemon();
    tv.waitForState(5);
    tv.jump(600);
    tv.setPower(kNormal);
    tv.setPower(kStandby); // the daemon is still there for this one
    expectEnd();
    EXPECT_TRUE(wasWritten("alpha"));
    EXPECT_THAT(reboots(), IsEmpty());
}

TEST_F(Power, OtherChangesAfterTenMinutesDoNothing)
{
    installPending("alpha");
    startPending();
    tv.jump(600);
    for (const int state : {kUnwatched, kStandby, 4, 1, kUnwatched, kNormal}) {
        tv.setPower(state);
    }
    tv.setPower(kStandby);
    expectEnd();
    EXPECT_EQ(tv.countOf(kTryUpdate), 1U);
    EXPECT_TRUE(wasWritten("alpha"));
    EXPECT_THAT(reboots(), IsEmpty());
}

// ---- Held back ----

TEST_F(Power, MirroringHoldsUpdatesBackAndItsEndLetsThemGo)
{
    const std::string key = kMirroringKey;
    installPending("alpha");
    startPending();
    tv.platform().setSetting(key, 1);
    tv.waitForText("[" + key + "] pralis get value : [1]");
    tv.setPower(kStandby); // in the first ten minutes: not even the end
    tv.waitForText(kHeldBack);
    tv.jump(600);
    tv.setPower(kNormal);
    tv.setPower(kStandby);
    tv.waitForText(kHeldBack, 3);
    EXPECT_TRUE(tv.daemonRuns());
    tv.setPower(kNormal);
    tv.waitForText(kHeldBack, 4);

    tv.platform().setSetting(key, 2);
    tv.waitForText("[" + key + "] pralis get value : [2]");
    tv.setPower(kStandby);
    expectEnd();
    EXPECT_EQ(tv.countOf(kTryUpdate), 1U);
    EXPECT_TRUE(wasWritten("alpha"));
}

TEST_F(Power, FactoryModeHoldsUpdatesBack)
{
    installPending("alpha");
    tv.switchOn();
    tv.write("/tmp/FACTORY_PRODCUTION", ""); // the platform's spelling
    tv.startDaemon();
    tv.waitForState(5);
    tv.setPower(kStandby);
    tv.waitForText(kHeldBack);
    tv.jump(600);
    tv.setPower(kNormal);
    tv.setPower(kStandby);
    tv.waitForText(kHeldBack, 3);
    EXPECT_TRUE(tv.daemonRuns());
    tv.platform().powerOff(0); // this one is not held back
    expectEnd();
    EXPECT_FALSE(wasWritten("alpha"));
}

TEST_F(Power, AFactoryMarkerInAnotherSpellingMeansNothing)
{
    installPending("alpha");
    tv.switchOn();
    tv.write("/tmp/FACTORY_PRODUCTION", "");
    tv.startDaemon();
    tv.waitForState(5);
    goToStandby();
    expectEnd();
    EXPECT_FALSE(tv.said(kHeldBack));
    EXPECT_TRUE(wasWritten("alpha"));
}

// ---- Power-off ----

TEST_F(Power, PowerOffTellsTheModulesAndEnds)
{
    installPending("alpha");
    startPending();
    tv.platform().powerOff(0);
    expectEnd();
    EXPECT_TRUE(tv.said("Try allDoUpdateDone"));
    EXPECT_TRUE(tv.said("allDoUpdateDone Done"));
    EXPECT_TRUE(wasAsked("alpha allUpdateDone()"));
    EXPECT_FALSE(tv.said("Try doUpdateFirmwareAll"));
}

TEST_F(Power, PowerOffDuringAnUpdateEndsTheServiceOnce)
{
    installPending("alpha", scriptOf("milliseconds", 20'000), {"1.1", 60, "none"});
    startPending();
    goToStandby();
    waitForWrite();
    tv.platform().powerOff(0);
    expectEnd();
    EXPECT_EQ(tv.countOf("service finalize"), 1U);
    EXPECT_EQ(tv.semaphore("show").text, "0\n"); // nobody gives it back for the write that was cut off
    EXPECT_THAT(tv.platform().snapshot()["locks"]["held"], IsEmpty());
}

TEST_F(Power, SeveralReasonsToEndAtOnceEndTheServiceOnce)
{
    installPending("alpha", scriptOf("milliseconds", 400));
    startPending();
    goToStandby(); // a run that ends the service from its own thread, while the events below end it from the
                   // loop
    waitForWrite();
    for (int count = 0; count < 20; ++count) {
        tv.setPower(count % 2 == 0 ? kUnwatched : kStandby);
        tv.platform().powerOff(count);
    }
    expectEnd();
    EXPECT_EQ(tv.countOf("service finalize"), 1U);
}

} // namespace
} // namespace service
