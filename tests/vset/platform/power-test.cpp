// Power: states, the power-off event, locks, reboots, and what ends with its owner.

#include <signal.h>
#include <thread>

#include "pwrctl.h"
#include "tests/vset/platform/platform-test.h"

using testing::ElementsAre;
using testing::Lt;
using testing::Pair;

namespace
{

using Changes = std::vector<std::pair<int, int>>;

int noteState(pwrctl_state_info* info, void* userData)
{
    static_cast<Changes*>(userData)->emplace_back(info->prev_state, info->cur_state);
    return 0;
}

int notePowerOff(pwrctl_poweroff_info* info, void* userData)
{
    static_cast<std::vector<int>*>(userData)->push_back(info->reason);
    return 0;
}

class Power : public PlatformTest
{
};

const Json::Value& lastOf(const Json::Value& list)
{
    return list[list.size() - 1];
}

} // namespace

TEST_F(Power, AChangeOfStateIsToldWithThePreviousState)
{
    Changes changes;
    ASSERT_EQ(pwrctl_get_state(), 0);
    ASSERT_EQ(pwrctl_subscribe_state_changed_event(noteState, &changes), 0);
    for (const int state : {2, 2, 0, 3}) {
        set.setPowerState(state);
    }
    EXPECT_TRUE(pumpUntil([&] { return changes.size() >= 3; }));
    pumpAll();
    EXPECT_THAT(changes, ElementsAre(Pair(0, 2), Pair(2, 0), Pair(0, 3)));
    EXPECT_EQ(pwrctl_get_state(), 3);
    EXPECT_EQ(pwrctl_unsubscribe_state_changed_event(noteState), 0);
    EXPECT_THAT(pwrctl_unsubscribe_state_changed_event(noteState), Lt(0));
}

TEST_F(Power, AStateThatIsNoneIsRefused)
{
    EXPECT_THROW(set.setPowerState(-1), vset::ControlError);
    EXPECT_THROW(set.setPowerState(256), vset::ControlError);
    EXPECT_EQ(pwrctl_get_state(), 0);
}

TEST_F(Power, APowerOffIsToldWithItsReason)
{
    std::vector<int> reasons;
    ASSERT_EQ(pwrctl_subscribe_poweroff_event(notePowerOff, &reasons), 0);
    set.powerOff(17);
    EXPECT_TRUE(pumpUntil([&] { return !reasons.empty(); }));
    EXPECT_THAT(reasons, ElementsAre(17));
}

TEST_F(Power, ALockExpiresByItself)
{
    ASSERT_EQ(pwrctl_lock_state(0, 300), 0);
    EXPECT_EQ(set.snapshot()["locks"]["held"].size(), 1U);
    const Json::Value locks =
        waitFor([](const Json::Value& now) { return now["locks"]["held"].empty(); })["locks"];
    EXPECT_EQ(lastOf(locks["history"])["end"].asString(), "expired");
    EXPECT_EQ(lastOf(locks["history"])["kind"].asInt(), 0);
    EXPECT_EQ(lastOf(locks["history"])["duration_ms"].asInt(), 300);
}

TEST_F(Power, ALockOfTheLongestDurationIsHeld)
{
    ASSERT_EQ(pwrctl_lock_state(2, 4294967295U), 0);
    EXPECT_EQ(set.snapshot()["locks"]["held"][0]["duration_ms"].asUInt(), 4294967295U);
    EXPECT_EQ(pwrctl_unlock_state(2), 0);
}

TEST_F(Power, OnlyTheLockOfItsKindIsReleased)
{
    ASSERT_EQ(pwrctl_lock_state(2, 60000), 0);
    EXPECT_THAT(pwrctl_unlock_state(0), Lt(0));
    EXPECT_EQ(set.snapshot()["locks"]["held"].size(), 1U);
    EXPECT_EQ(pwrctl_unlock_state(2), 0);
    const Json::Value locks = set.snapshot()["locks"];
    EXPECT_TRUE(locks["held"].empty());
    EXPECT_EQ(lastOf(locks["history"])["end"].asString(), "released");
    EXPECT_THAT(pwrctl_unlock_state(2), Lt(0));
}

TEST_F(Power, ASecondLockOfTheSameKindTakesTheFirstOnesPlace)
{
    ASSERT_EQ(pwrctl_lock_state(2, 200), 0);
    ASSERT_EQ(pwrctl_lock_state(2, 60000), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const Json::Value locks = set.snapshot()["locks"];
    ASSERT_EQ(locks["held"].size(), 1U);
    EXPECT_EQ(locks["held"][0]["duration_ms"].asInt(), 60000);
    EXPECT_EQ(lastOf(locks["history"])["end"].asString(), "replaced");
}

TEST_F(Power, EverythingOfAKilledProgramEndsWithIt)
{
    Child child("hold-everything");
    ASSERT_EQ(child.readLine(), "held");
    const Json::Value held = set.snapshot();
    ASSERT_EQ(held["locks"]["held"][0]["owner"]["pid"].asInt(), child.process());
    ASSERT_EQ(held["watchdog"]["registered"].size(), 1U);
    ASSERT_EQ(held["subscribers"].size(), 1U);
    child.kill(SIGKILL);
    const Json::Value after = waitFor([](const Json::Value& now) { return now["locks"]["held"].empty(); });
    EXPECT_EQ(lastOf(after["locks"]["history"])["end"].asString(), "owner ended");
    EXPECT_TRUE(after["watchdog"]["registered"].empty());
    EXPECT_EQ(lastOf(after["watchdog"]["history"])["step"].asString(), "ended");
    EXPECT_TRUE(after["launches"][0]["destroyed"].asBool());
    EXPECT_TRUE(after["subscribers"].empty());
}

TEST_F(Power, ARebootWaitsForTheLastLock)
{
    ASSERT_EQ(pwrctl_lock_state(2, 60000), 0);
    ASSERT_EQ(pwrctl_request_reboot(0x20000020), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500)); // the grace of a second is over
    const Json::Value waiting = set.snapshot();
    EXPECT_EQ(waiting["power"]["pending_end"].asString(), "reboot");
    EXPECT_EQ(waiting["reboots"][0]["outcome"].asString(), "waiting");
    EXPECT_EQ(waiting["reboots"][0]["reason"].asInt64(), 0x20000020);
    ASSERT_EQ(pwrctl_unlock_state(2), 0);
    const Json::Value after = set.snapshot();
    EXPECT_EQ(after["reboots"][0]["outcome"].asString(), "recorded only");
    EXPECT_EQ(after["power"]["pending_end"].asString(), "");
}

TEST_F(Power, ARebootDuringAPowerOffIsRecordedBesideIt)
{
    set.powerOff(0);
    ASSERT_EQ(pwrctl_request_reboot(1), 0);
    const Json::Value after =
        waitFor([](const Json::Value& now) { return now["power"]["pending_end"].asString().empty(); });
    EXPECT_EQ(after["reboots"][0]["outcome"].asString(), "recorded only");
    EXPECT_EQ(after["reboots"][1]["outcome"].asString(), "the set is ending already");
}
