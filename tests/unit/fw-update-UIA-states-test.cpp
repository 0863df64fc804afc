// The UI agent's state machine: what each state does, and what ends it.
#include <cstdint>
#include <filesystem>
#include <new>
#include <pthread.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/manager-agent-test.h"

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::FieldsAre;
using testing::IsEmpty;
using testing::Pair;

namespace
{

// As long as it lives the process has no thread to give: a new one's stack would not fit into memory.
class NoThreads
{
public:
    NoThreads()
    {
        pthread_getattr_default_np(&usual);
        pthread_attr_t excessive = usual;
        pthread_attr_setstacksize(&excessive, SIZE_MAX / 4 * 3);
        pthread_setattr_default_np(&excessive);
    }
    ~NoThreads() { pthread_setattr_default_np(&usual); }
    NoThreads(const NoThreads&) = delete;
    NoThreads& operator=(const NoThreads&) = delete;

private:
    pthread_attr_t usual;
};

class FWUpdateUIAStates : public AgentTest
{
protected:
    // A tick changes neither the state nor anything else, and the timer goes on.
    void expectToWaitIn(int waiting)
    {
        platform.reset();
        EXPECT_TRUE(tickIn(static_cast<FWSVC>(waiting))) << waiting;
        EXPECT_EQ(state(), waiting);
        EXPECT_THAT(platform.calls(), IsEmpty()) << waiting;
        EXPECT_THAT(platform.log(), ElementsAre(error(std::to_string(waiting))));
    }
};

TEST_F(FWUpdateUIAStates, WaitInTheseStates)
{
    for (const int waiting : {0, 1, 2, 3, 4, 6, 8, 10, 14, 19, 20, 21}) {
        expectToWaitIn(waiting);
    }
    EXPECT_EQ(serviceFinalizeCount(), 0);
}

TEST_F(FWUpdateUIAStates, WaitInNumbersThatAreNoStates)
{
    expectToWaitIn(22);
    expectToWaitIn(-1);
}

TEST_F(FWUpdateUIAStates, BelongToTheOneAgentWhenTheHandlerIsGivenNone)
{
    agent.FWSVC_set_state(FWSVC_UI_CANCELLED);
    EXPECT_EQ(FWUpdateUIA::FWSVC_state_handler(nullptr), TRUE);
    EXPECT_EQ(state(), FWSVC_FINISH);
}

// The timer is called by C code, which knows of no exceptions.
TEST_F(FWUpdateUIAStates, EndTheServiceWhenTheirActionThrows)
{
    platform.onCall("pralis_get_int", [] { throw std::bad_alloc(); });
    agent.FWSVC_set_state(FWSVC_UI_UPDATING);
    EXPECT_EQ(state_wrapper_timer_cb(nullptr), FALSE);
    EXPECT_EQ(serviceFinalizeCount(), 1);
}

TEST_F(FWUpdateUIAStates, EndTheServiceWhenTheirThreadThrows)
{
    platform.onCall("pwrctl_get_state", [] { throw std::bad_alloc(); });
    addPending("tuner", "empTuner", 10, "select");
    EXPECT_TRUE(tickIn(FWSVC_MODULES_CHECKED));
    EXPECT_TRUE(eventually([] { return serviceFinalizeCount() == 1; }));
}

TEST_F(FWUpdateUIAStates, AreShownTheSameInBothLogs)
{
    platform.onLog([&](const std::string&) { agent.FWSVC_set_state(FWSVC_UI_SHOWN); });
    EXPECT_TRUE(tickIn(FWSVC_WAIT_PKGMGR));
    EXPECT_THAT(platform.log(), ElementsAre(error("6")));
}

// ---- 2 to 5: packages and list ----

TEST_F(FWUpdateUIAStates, ShowTheRequestOfThePackages)
{
    addModule("tuner", "empTuner");
    FWSVC during = FWSVC_INIT;
    platform.onCall("ABM_DownloadAppBinary", [&] { during = state(); });
    EXPECT_EQ(agent.request_empdownload(), 0);
    EXPECT_EQ(during, FWSVC_EMP_DOWNLOADING);
    EXPECT_EQ(state(), FWSVC_EMP_DOWNLOADED);
    EXPECT_THAT(platform.packageRequests(), ElementsAre("empTuner"));
}

TEST_F(FWUpdateUIAStates, EndTheServiceWhenNoModuleNeedsAnUpdate)
{
    TestModule tuner = addPending("tuner", "empTuner", 10);
    tuner.library.answers.verdict = 0;
    EXPECT_EQ(agent.check_update_module(true), 0);
    EXPECT_EQ(serviceFinalizeCount(), 1);
    EXPECT_EQ(platform.log().back(), info("no update module item!\n"));
    EXPECT_EQ(state(), FWSVC_MODULES_CHECKED); // the stand-in returned
}

TEST_F(FWUpdateUIAStates, EndTheServiceWhileTheModulesAreStillBeingChecked)
{
    FWSVC whenTold = FWSVC_INIT;
    platform.onLog([&](const std::string&) { whenTold = state(); });
    agent.check_update_module(true);
    EXPECT_EQ(whenTold, FWSVC_CHECKING_MODULES);
}

TEST_F(FWUpdateUIAStates, GoOnWithAModuleThatNeedsAnUpdate)
{
    TestModule tuner = addPending("tuner", "empTuner", 10);
    FWSVC during = FWSVC_INIT;
    tuner.library.answers.onCall = [&](const std::string&) { during = state(); };
    EXPECT_EQ(agent.check_update_module(true), 1);
    EXPECT_EQ(during, FWSVC_CHECKING_MODULES);
    EXPECT_EQ(state(), FWSVC_MODULES_CHECKED);
    EXPECT_EQ(serviceFinalizeCount(), 0);
    EXPECT_EQ(platform.log().back(), info("need update item, wait ui or bg fw update\n"));
}

TEST_F(FWUpdateUIAStates, GoOnWhenTheListIsUnsafe)
{
    fs::create_symlink("/nowhere", kListPath);
    EXPECT_EQ(agent.check_update_module(true), -1);
    EXPECT_EQ(state(), FWSVC_MODULES_CHECKED);
    EXPECT_EQ(serviceFinalizeCount(), 0);
    EXPECT_EQ(platform.log().back(), info("need update item, wait ui or bg fw update\n"));
}

TEST_F(FWUpdateUIAStates, GoOnWhenTheServiceIsEnding)
{
    addPending("tuner", "empTuner", 10);
    EXPECT_EQ(agent.check_update_module(false), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Task is not running, writeFirmwareUpdateList stop"),
                                            info("need update item, wait ui or bg fw update\n")));
    EXPECT_EQ(state(), FWSVC_MODULES_CHECKED);
}

// ---- 5 to 7: count and package manager ----

TEST_F(FWUpdateUIAStates, EndTheServiceWhenNothingIsPending)
{
    addModule("tuner", "empTuner");
    EXPECT_FALSE(tickIn(FWSVC_MODULES_CHECKED));
    EXPECT_EQ(serviceFinalizeCount(), 1);
}

TEST_F(FWUpdateUIAStates, StopTheTimerWhenOnlyTheBackgroundHasWork)
{
    addPending("tuner", "empTuner", 10);
    addPending("panel", "empPanel", 10);
    EXPECT_FALSE(tickIn(FWSVC_MODULES_CHECKED));
    EXPECT_EQ(serviceFinalizeCount(), 0);
    EXPECT_EQ(state(), FWSVC_MODULES_CHECKED);
    EXPECT_THAT(platform.calls(), IsEmpty());
}

TEST_F(FWUpdateUIAStates, LookForThePackageManagerWhenTheUIHasWork)
{
    addPending("tuner", "empTuner", 10, "select");
    FWSVC during = FWSVC_INIT;
    platform.onCall("pwrctl_get_state", [&] { during = state(); });
    EXPECT_TRUE(tickIn(FWSVC_MODULES_CHECKED));
    EXPECT_TRUE(reaches(FWSVC_PKGMGR_CHECKED));
    EXPECT_EQ(during, FWSVC_WAIT_PKGMGR);
    EXPECT_EQ(serviceFinalizeCount(), 0);
}

TEST_F(FWUpdateUIAStates, LookForThePackageManagerAtTheNextTickWithoutAThreadForIt)
{
    addPending("tuner", "empTuner", 10, "select");
    {
        const NoThreads none;
        EXPECT_TRUE(tickIn(FWSVC_MODULES_CHECKED));
        EXPECT_EQ(state(), FWSVC_MODULES_CHECKED);
    }
    EXPECT_TRUE(tick());
    EXPECT_TRUE(reaches(FWSVC_PKGMGR_CHECKED));
}

TEST_F(FWUpdateUIAStates, LaunchTheUIAtTheNextTickWithoutAThreadForIt)
{
    agent.chk_pkgMgrReady();
    platform.answer("applaunch_create", -1); // ends the launch at once
    {
        const NoThreads none;
        EXPECT_TRUE(tick());
        EXPECT_EQ(state(), FWSVC_PKGMGR_CHECKED);
        EXPECT_EQ(platform.countCalls("applaunch_create"), 0);
    }
    EXPECT_TRUE(tick());
    EXPECT_TRUE(reaches(FWSVC_UI_LAUNCH_DONE));
}

TEST_F(FWUpdateUIAStates, ClaimTheWorkingStatusBeforeTheUIMayBeLaunched)
{
    agent.chk_pkgMgrReady();
    EXPECT_THAT(platform.calls(),
                ElementsAre("pwrctl_get_state()", "pralis_get_int(\"" + std::string(kWorkingKey) + "\")",
                            "pralis_set_int(\"" + std::string(kWorkingKey) + "\", 1)"));
    EXPECT_EQ(state(), FWSVC_PKGMGR_CHECKED);
}

TEST_F(FWUpdateUIAStates, AllowTheUIAlsoWhenTheClaimFails)
{
    platform.answer("pralis_set_int", -1);
    platform.answer("applaunch_create", -1); // ends the launch at once
    agent.chk_pkgMgrReady();
    EXPECT_THAT(platform.log(), ElementsAre(error("Failed to save pralis [1]")));
    EXPECT_TRUE(tick());
    EXPECT_TRUE(reaches(FWSVC_UI_LAUNCH_DONE));
}

TEST_F(FWUpdateUIAStates, WaitForAPackageManagerThatIsLate)
{
    fs::remove(kReadyMarker);
    std::thread check([&] { agent.chk_pkgMgrReady(); });
    EXPECT_TRUE(reaches(FWSVC_WAIT_PKGMGR));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(state(), FWSVC_WAIT_PKGMGR);
    EXPECT_THAT(platform.calls(), IsEmpty());
    writeFile(kReadyMarker, "");
    check.join();
    EXPECT_EQ(state(), FWSVC_PKGMGR_CHECKED);
    EXPECT_EQ(platform.setting(kWorkingKey), 1);
}

// A package-manager check that does not allow the UI: it neither claims the session nor launches.
class FWUpdateUIAForbidden : public AgentTest
{
protected:
    void expectForbidden(FWSVC from = FWSVC_MODULES_CHECKED)
    {
        agent.FWSVC_set_state(from);
        agent.chk_pkgMgrReady();
        EXPECT_EQ(state(), FWSVC_PKGMGR_CHECKED);
        EXPECT_THAT(platform.settingWrites(), IsEmpty());
        EXPECT_FALSE(tick());
        EXPECT_EQ(state(), FWSVC_PKGMGR_CHECKED);
        EXPECT_THAT(platform.launches(), IsEmpty());
    }
};

TEST_F(FWUpdateUIAForbidden, UnlessTheSetIsSwitchedOn)
{
    for (const int power : {1, 2, -1}) {
        platform.setPowerState(power);
        expectForbidden();
    }
}

TEST_F(FWUpdateUIAForbidden, InFactoryMode)
{
    writeFile(kFactoryMarker, "");
    expectForbidden();
}

TEST_F(FWUpdateUIAForbidden, WhileAnotherUpgradeIsWorking)
{
    for (const int working : {1, 2, -1}) {
        platform.setSetting(kWorkingKey, working);
        expectForbidden();
    }
}

TEST_F(FWUpdateUIAForbidden, WhenTheWorkingStatusCannotBeRead)
{
    platform.answer("pralis_get_int", -1);
    expectForbidden();
    EXPECT_THAT(platform.log(), Contains(error("Failed to read pralis [0]")));
}

TEST_F(FWUpdateUIAForbidden, AlsoAfterItWasAllowedBefore)
{
    agent.chk_pkgMgrReady();
    platform.reset();
    platform.setPowerState(2);
    expectForbidden();
}

TEST_F(FWUpdateUIAForbidden, EndsTheServiceWithoutWorkInTheBackground)
{
    addPending("tuner", "empTuner", 10, "select");
    platform.setPowerState(2);
    countModules();
    EXPECT_FALSE(tick());
    EXPECT_EQ(serviceFinalizeCount(), 1);
}

TEST_F(FWUpdateUIAForbidden, LeavesTheServiceToItsWorkInTheBackground)
{
    addPending("tuner", "empTuner", 10, "select");
    addPending("panel", "empPanel", 10, "none");
    platform.setPowerState(2);
    countModules();
    EXPECT_FALSE(tick());
    EXPECT_EQ(serviceFinalizeCount(), 0);
}

// ---- 11 to 14: update ----

TEST_F(FWUpdateUIAStates, UpdateNothingWithoutAModuleForTheUI)
{
    countModules(); // none
    platform.clearLog();
    EXPECT_TRUE(tickIn(FWSVC_UI_ACCEPTED));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(state(), FWSVC_UI_ACCEPTED);
    EXPECT_THAT(platform.settingWrites(), IsEmpty());
    EXPECT_THAT(platform.log(), ElementsAre(error("11")));
}

TEST_F(FWUpdateUIAStates, UpdateWhatTheUserAccepted)
{
    TestModule tuner = addPending("tuner", "empTuner", 10, "select");
    addPending("panel", "empPanel", 20, "select");
    addPending("idle", "empIdle", 70, "none");
    countModules();
    platform.setSetting(kStatusKey, 1);
    FWSVC during = FWSVC_INIT;
    tuner.library.answers.onCall = [&](const std::string& function) {
        if (function == "doUpdate") {
            during = state();
            EXPECT_EQ(platform.setting(kStatusKey), 2);
            untilOthersSleep();
        }
    };
    EXPECT_TRUE(tickIn(FWSVC_UI_ACCEPTED));
    EXPECT_TRUE(reaches(FWSVC_UI_UPDATE_DONE));
    EXPECT_EQ(during, FWSVC_UI_UPDATING);
    EXPECT_THAT(platform.powerLocks(), ElementsAre(FieldsAre(0, 40000U)));
}

TEST_F(FWUpdateUIAStates, UpdateAtTheNextTickWithoutAThreadForIt)
{
    addPending("tuner", "empTuner", 10, "select");
    countModules();
    {
        const NoThreads none;
        EXPECT_TRUE(tickIn(FWSVC_UI_ACCEPTED));
        EXPECT_EQ(state(), FWSVC_UI_ACCEPTED);
        EXPECT_EQ(platform.setting(kStatusKey), std::nullopt);
    }
    EXPECT_TRUE(tick());
    EXPECT_TRUE(reaches(FWSVC_UI_UPDATE_DONE));
    EXPECT_TRUE(isLogged("========== [ Tuner update succeeded ] =========="));
}

TEST_F(FWUpdateUIAStates, TellTheUIOfTheUpdateBeforeItIsShown)
{
    addPending("tuner", "empTuner", 10, "select");
    countModules();
    FWSVC whenTold = FWSVC_INIT;
    platform.onCall("pralis_set_int", [&] { whenTold = state(); });
    tickIn(FWSVC_UI_ACCEPTED);
    EXPECT_TRUE(reaches(FWSVC_UI_UPDATE_DONE));
    EXPECT_EQ(whenTold, FWSVC_UI_ACCEPTED);
}

TEST_F(FWUpdateUIAStates, PublishTheProgressOfTheUpdate)
{
    manager.totalUpdateTimeMs = 100;
    manager.doneUpdateTime = 40;
    EXPECT_TRUE(tickIn(FWSVC_UI_UPDATING));
    EXPECT_EQ(state(), FWSVC_UI_UPDATING);
    EXPECT_THAT(platform.settingWrites(), ElementsAre(Pair(kProgressKey, 40)));
    EXPECT_THAT(platform.log(), ElementsAre(error("12"), error("progress 40")));
}

TEST_F(FWUpdateUIAStates, IgnoreAUIThatClosesDuringTheUpdate)
{
    TestModule tuner = addPending("tuner", "empTuner", 10, "select");
    agent.register_fwstatus_UI_pralis_cb();
    countModules();
    Gate gate;
    holdUpdates(tuner.library, gate);
    tickIn(FWSVC_UI_ACCEPTED);
    ASSERT_TRUE(eventually([&] { return gate.isReached(); }));
    platform.changeSetting(kStatusKey, 4);
    EXPECT_EQ(state(), FWSVC_UI_UPDATING);
    gate.open();
    EXPECT_TRUE(reaches(FWSVC_UI_UPDATE_DONE));
}

TEST_F(FWUpdateUIAStates, TellTheUIThatTheUpdateIsFinished)
{
    EXPECT_TRUE(tickIn(FWSVC_UI_UPDATE_DONE));
    EXPECT_EQ(state(), FWSVC_WAIT_UI_CLOSE);
    EXPECT_THAT(platform.settingWrites(), ElementsAre(Pair(kProgressKey, 100), Pair(kStatusKey, 3)));
    EXPECT_THAT(platform.log(), ElementsAre(error("13"), error("progress 100")));
}

TEST_F(FWUpdateUIAStates, FinishAnUpdateThatThePowerStateRefused)
{
    TestModule tuner = addPending("tuner", "empTuner", 10, "select");
    countModules();
    platform.setPowerState(2);
    tickIn(FWSVC_UI_ACCEPTED);
    EXPECT_TRUE(reaches(FWSVC_UI_UPDATE_DONE));
    EXPECT_THAT(tuner.library.calls(), IsEmpty());
    tickIn(FWSVC_UI_CLOSED);
    EXPECT_EQ(state(), FWSVC_UI_CLOSED);
}

// ---- 15 to 19: end ----

TEST_F(FWUpdateUIAStates, ReleaseTheSessionWhenTheUIIsClosed)
{
    for (const FWSVC closing : {FWSVC_UI_CLOSED, FWSVC_UI_CANCELLED}) {
        platform.setSetting(kWorkingKey, 1);
        agent.register_fwstatus_UI_pralis_cb();
        EXPECT_TRUE(tickIn(closing));
        EXPECT_FALSE(platform.isSubscribed(kStatusKey));
        EXPECT_EQ(platform.setting(kWorkingKey), 0);
    }
}

TEST_F(FWUpdateUIAStates, LeaveAWorkingStatusAloneThatIsNotOne)
{
    for (const FWSVC closing : {FWSVC_UI_CLOSED, FWSVC_UI_CANCELLED}) {
        for (const int working : {0, 2, -1}) {
            platform.setSetting(kWorkingKey, working);
            tickIn(closing);
            EXPECT_THAT(platform.settingWrites(), IsEmpty());
        }
    }
}

TEST_F(FWUpdateUIAStates, LeaveAWorkingStatusAloneThatCannotBeRead)
{
    platform.setSetting(kWorkingKey, 1);
    platform.answer("pralis_get_int", -1);
    tickIn(FWSVC_UI_CANCELLED);
    EXPECT_THAT(platform.settingWrites(), IsEmpty());
    EXPECT_EQ(state(), FWSVC_FINISH);
}

TEST_F(FWUpdateUIAStates, StayClosedWithoutAnExecutedUpgradeAndRepeatTheWork)
{
    agent.FWSVC_set_state(FWSVC_UI_CLOSED);
    for (int seconds = 1; seconds <= 3; ++seconds) {
        EXPECT_TRUE(tick());
        EXPECT_EQ(state(), FWSVC_UI_CLOSED);
        EXPECT_EQ(platform.countCalls("pralis_ignore_key_changed"), seconds);
        EXPECT_EQ(platform.countCalls("pralis_get_int"), seconds);
    }
}

TEST_F(FWUpdateUIAStates, RebootAfterAnExecutedUpgrade)
{
    manager.totalUpdateTimeMs = 10000;
    manager.doneUpdateTime = 10;
    EXPECT_TRUE(tickIn(FWSVC_UI_CLOSED));
    EXPECT_EQ(state(), FWSVC_REBOOT);
    platform.reset();
    EXPECT_TRUE(tick());
    EXPECT_EQ(state(), FWSVC_REBOOTING);
    EXPECT_THAT(platform.calls(), ElementsAre("pwrctl_unlock_state(0)",
                                              "pwrctl_request_reboot(" + std::to_string(0x2000000cU) + ")"));
}

TEST_F(FWUpdateUIAStates, FinishAfterACancelledSessionAlsoWhenAnUpgradeWasExecuted)
{
    manager.totalUpdateTimeMs = 10000;
    manager.doneUpdateTime = 10;
    EXPECT_TRUE(tickIn(FWSVC_UI_CANCELLED));
    EXPECT_EQ(state(), FWSVC_FINISH);
    EXPECT_THAT(platform.reboots(), IsEmpty());
}

TEST_F(FWUpdateUIAStates, EndTheServiceWhenAllIsFinished)
{
    countModules(); // none
    resetServiceFinalizeCount();
    EXPECT_FALSE(tickIn(FWSVC_FINISH));
    EXPECT_EQ(serviceFinalizeCount(), 1);
}

TEST_F(FWUpdateUIAStates, LeaveTheServiceToItsWorkInTheBackgroundWhenAllElseIsFinished)
{
    addPending("panel", "empPanel", 10, "none");
    countModules();
    EXPECT_FALSE(tickIn(FWSVC_FINISH));
    EXPECT_EQ(serviceFinalizeCount(), 0);
}

// ---- All of it ----

TEST_F(FWUpdateUIAStates, FollowEachOtherFromThePackagesToTheReboot)
{
    TestModule tuner = addModule("tuner", "empTuner");
    fillSource(makePackage("empTuner").tree, "Tuner", 1, "force");
    agent.request_empdownload();
    ASSERT_EQ(agent.check_update_module(true), 1);
    EXPECT_TRUE(exists(kListPath));
    ASSERT_TRUE(tick());
    ASSERT_TRUE(reaches(FWSVC_PKGMGR_CHECKED));
    ASSERT_TRUE(tick());
    ASSERT_TRUE(eventually([&] { return platform.launches().size() == 1; }));
    EXPECT_EQ(platform.setting(kWorkingKey), 1);
    ASSERT_TRUE(reaches(FWSVC_UI_LAUNCH_DONE));
    ASSERT_TRUE(tick());
    ASSERT_EQ(state(), FWSVC_UI_SHOWN);
    platform.changeSetting(kStatusKey, 1);
    ASSERT_TRUE(tick());
    ASSERT_TRUE(reaches(FWSVC_UI_UPDATE_DONE));
    EXPECT_THAT(tuner.library.calls(),
                Contains(R"(doUpdate("/opt/usr/apps/appbinarymanager/emps/empTuner/Tuner.bin", 0))"));
    ASSERT_TRUE(tick());
    platform.changeSetting(kStatusKey, 4);
    ASSERT_TRUE(tick());
    ASSERT_TRUE(tick());
    EXPECT_EQ(state(), FWSVC_REBOOTING);
    EXPECT_THAT(platform.reboots(), ElementsAre(0x2000000cU));
    EXPECT_THAT(platform.settingWrites(),
                ElementsAre(Pair(kWorkingKey, 1), Pair(kStatusKey, 2), Pair(kProgressKey, 100),
                            Pair(kStatusKey, 3), Pair(kWorkingKey, 0)));
    EXPECT_THAT(platform.heldPowerLocks(), IsEmpty());
    EXPECT_FALSE(exists(kListPath));
    EXPECT_EQ(serviceFinalizeCount(), 0);
}

} // namespace
