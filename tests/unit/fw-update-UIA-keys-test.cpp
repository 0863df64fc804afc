// The UI agent's settings keys, its markers, and the launch of the upgrade UI.
#include <climits>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/manager-agent-test.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace
{

class FWUpdateUIAKeys : public AgentTest
{
};

TEST_F(FWUpdateUIAKeys, BelongToOneAgentThatIsAlwaysReady)
{
    EXPECT_EQ(FWUpdateUIA::getInstance(), &agent);
    EXPECT_TRUE(agent.getIsReady());
    EXPECT_TRUE(agent.getIsReady());
}

// ---- Working status ----

TEST_F(FWUpdateUIAKeys, TellTheWorkingStatus)
{
    for (const int value : {0, 1, 7, -3}) {
        platform.setSetting(kWorkingKey, value);
        EXPECT_EQ(agent.get_EP_WORKING_STATUS_PRALIS(), value);
    }
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateUIAKeys, TellAWorkingStatusThatCannotBeRead)
{
    platform.setSetting(kWorkingKey, 1);
    platform.answer("pralis_get_int", -5);
    EXPECT_EQ(agent.get_EP_WORKING_STATUS_PRALIS(), -1);
    EXPECT_THAT(platform.log(), ElementsAre(error("Failed to read pralis [0]")));
}

TEST_F(FWUpdateUIAKeys, TakeTheWorkingStatus)
{
    EXPECT_EQ(agent.set_EP_WORKING_STATUS_PRALIS(1), 1);
    EXPECT_THAT(platform.settingWrites(), ElementsAre(Pair(kWorkingKey, 1)));
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateUIAKeys, TellAWorkingStatusThatCannotBeWritten)
{
    platform.answer("pralis_set_int", -5);
    EXPECT_EQ(agent.set_EP_WORKING_STATUS_PRALIS(7), 0);
    EXPECT_THAT(platform.log(), ElementsAre(error("Failed to save pralis [7]")));
}

// ---- Progress ----

struct ProgressCase {
    const char* why;
    bool done;
    int stored;
    uint32_t current; // percent, as the manager tells it
    int after;
};

constexpr ProgressCase kProgressCases[] = {
    {"grows", false, 10, 40, 40},
    {"never falls", false, 60, 40, 60},
    {"is not written again", false, 40, 40, 40},
    {"may reach 100", false, 40, 100, 100},
    {"is not written beyond 100", false, 40, 101, 40},
    {"is not written far beyond 100", false, 0, 150, 0},
    {"starts above 0", false, 0, 0, 0},
    {"starts at 1", false, 0, 1, 1},
    {"leaves a negative value", false, -1, 0, 0},
    {"ends at 100", true, 40, 0, 100},
    {"ends at 100 whatever the manager tells", true, 99, 150, 100},
    {"has ended already", true, 100, 40, 100},
    {"is left alone above 100", true, 150, 40, 150},
};

TEST_F(FWUpdateUIAKeys, PublishAProgressThatOnlyGrows)
{
    for (const ProgressCase& one : kProgressCases) {
        platform.reset();
        platform.setSetting(kProgressKey, one.stored);
        manager.totalUpdateTimeMs = 100;
        manager.doneUpdateTime = one.current;
        agent.updateFWUpdateProgress(one.done);
        EXPECT_EQ(platform.setting(kProgressKey), one.after) << one.why;
        if (one.after == one.stored) {
            EXPECT_THAT(platform.settingWrites(), IsEmpty()) << one.why;
            EXPECT_THAT(platform.log(), IsEmpty()) << one.why;
        } else {
            EXPECT_THAT(platform.log(), ElementsAre(error("progress " + std::to_string(one.after))))
                << one.why;
        }
    }
}

TEST_F(FWUpdateUIAKeys, TakeAProgressBeyondTheSignedRangeForALargeOne)
{
    platform.setSetting(kProgressKey, -5);
    manager.totalUpdateTimeMs = 1;
    manager.doneUpdateTime = 1030792151U; // times 100 wraps to 4294967292, which is -4 when signed
    agent.updateFWUpdateProgress(false);
    EXPECT_THAT(platform.settingWrites(), IsEmpty());
}

TEST_F(FWUpdateUIAKeys, TakeAProgressThatCannotBeReadForZero)
{
    platform.setSetting(kProgressKey, 60);
    platform.answer("pralis_get_int", -1);
    manager.totalUpdateTimeMs = 100;
    manager.doneUpdateTime = 1;
    agent.updateFWUpdateProgress(false);
    EXPECT_THAT(platform.settingWrites(), ElementsAre(Pair(kProgressKey, 1)));
}

TEST_F(FWUpdateUIAKeys, TellAProgressAlsoWhenItsWriteFailed)
{
    platform.answer("pralis_set_int", -1);
    agent.updateFWUpdateProgress(true);
    EXPECT_THAT(platform.log(), ElementsAre(error("progress 100")));
}

TEST_F(FWUpdateUIAKeys, PublishNoProgressWhileNothingIsExpected)
{
    agent.updateFWUpdateProgress(false);
    EXPECT_THAT(platform.settingWrites(), IsEmpty());
}

// ---- Status ----

TEST_F(FWUpdateUIAKeys, TellTheUIOnlyWhatIsTheDaemonsToTell)
{
    for (int status = -1; status <= 5; ++status) {
        agent.notiFromSVCToUI(status);
    }
    EXPECT_THAT(platform.settingWrites(), ElementsAre(Pair(kStatusKey, 2), Pair(kStatusKey, 3)));
    EXPECT_EQ(platform.calls().size(), 2U);
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateUIAKeys, AreListenedToAndIgnoredAgain)
{
    agent.register_fwstatus_UI_pralis_cb();
    EXPECT_TRUE(platform.isSubscribed(kStatusKey));
    EXPECT_EQ(agent.unregister_fwstatus_UI_pralis_cb(), 0);
    EXPECT_FALSE(platform.isSubscribed(kStatusKey));
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateUIAKeys, TellThatTheyCannotBeListenedTo)
{
    platform.answer("pralis_notify_key_changed", -1);
    agent.register_fwstatus_UI_pralis_cb();
    EXPECT_THAT(platform.log(), ElementsAre(error("Error, fail in registering for fwstatus_UI_cb ")));
}

TEST_F(FWUpdateUIAKeys, PassTheStoresResultOnWhenTheyAreIgnored)
{
    platform.answer("pralis_ignore_key_changed", -7);
    EXPECT_EQ(agent.unregister_fwstatus_UI_pralis_cb(), -7);
}

TEST_F(FWUpdateUIAKeys, SayNothingWithoutANode)
{
    agent.register_fwstatus_UI_pralis_cb();
    agent.FWSVC_set_state(FWSVC_UI_SHOWN);
    EXPECT_EQ(platform.fireNullNode(kStatusKey), 1);
    EXPECT_EQ(state(), FWSVC_UI_SHOWN);
    EXPECT_THAT(platform.log(), ElementsAre(error("pralis node is null")));
}

// What the UI's answer makes of a state.
FWSVC afterAnswer(int before, int answer)
{
    if (answer == 1 && before >= 7 && before <= 10) {
        return FWSVC_UI_ACCEPTED;
    }
    if (answer == 4 && before >= 7 && before <= 10) {
        return FWSVC_UI_CANCELLED;
    }
    return answer == 4 && before == 14 ? FWSVC_UI_CLOSED : static_cast<FWSVC>(before);
}

TEST_F(FWUpdateUIAKeys, TakeEachAnswerInTheStatesThatWaitForItAlone)
{
    agent.register_fwstatus_UI_pralis_cb();
    for (int before = FWSVC_INIT; before <= FWSVC_FINALIZED; ++before) {
        for (int answer = -1; answer <= 5; ++answer) {
            agent.FWSVC_set_state(static_cast<FWSVC>(before));
            platform.clearLog();
            platform.changeSetting(kStatusKey, answer);
            EXPECT_EQ(state(), afterAnswer(before, answer)) << "answer " << answer << " in " << before;
            EXPECT_THAT(platform.log(), ElementsAre(error("fwstatus_ui_cb val " + std::to_string(answer))));
        }
    }
}

// ---- Markers ----

TEST_F(FWUpdateUIAKeys, KnowTheFactoryModeByThePlatformsSpelling)
{
    writeFile("/tmp/FACTORY_PRODUCTION", "");
    EXPECT_FALSE(agent.Is_Factory_Prodution_Booting());
    writeFile(kFactoryMarker, "");
    EXPECT_TRUE(agent.Is_Factory_Prodution_Booting());
}

TEST_F(FWUpdateUIAKeys, TakeAnyKindOfFileForExisting)
{
    EXPECT_TRUE(agent.file_exists("/tmp"));
    EXPECT_TRUE(agent.file_exists(kReadyMarker));
    EXPECT_FALSE(agent.file_exists("/tmp/missing"));
    EXPECT_FALSE(agent.file_exists(""));
}

// ---- Launch request ----

class FWUpdateUIALaunch : public AgentTest
{
protected:
    // The launch request's extras, without a launch: the application's name is refused.
    std::vector<std::string> extras()
    {
        platform.answer("applaunch_set_app_id", -1);
        agent.launch_Device_Upgrade_UI();
        std::vector<std::string> added;
        for (const std::string& call : platform.calls()) {
            if (call.rfind("applaunch_add_extra_data", 0) == 0) {
                added.push_back(call);
            }
        }
        return added;
    }
    // Has the agent learn an expected time: what earlier counts have left, plus a module's seconds.
    void expectTime(uint32_t leftBefore, uint32_t seconds)
    {
        manager.firmwareItems.clear();
        addPending("tuner", "empTuner", seconds, "select");
        manager.totalUpdateTimeMs = leftBefore;
        tickIn(FWSVC_MODULES_CHECKED);
        EXPECT_TRUE(reaches(FWSVC_PKGMGR_CHECKED));
    }
};

struct TimeInfo {
    uint32_t leftBefore;
    uint32_t seconds;
    const char* text;
};

TEST_F(FWUpdateUIALaunch, TellsTheExpectedTimeInWholeSeconds)
{
    for (const TimeInfo& time : {TimeInfo{999, 1, "1"},
                                 {999, 0, "0"},
                                 {0, 300, "300"},
                                 {UINT32_MAX - 1499, 0, "-1"},
                                 {UINT32_MAX - 998, 0, "0"},
                                 {UINT32_MAX - 1999, 0, "-2"},
                                 {0, 2147484, "-2147483"}}) {
        platform.reset();
        platform.setSetting(kWorkingKey, 0);
        expectTime(time.leftBefore, time.seconds);
        EXPECT_EQ(extras().at(1),
                  "applaunch_add_extra_data(\"timeinfo\", \"" + std::string(time.text) + "\")");
    }
}

TEST_F(FWUpdateUIALaunch, OffersAChoice)
{
    addPending("tuner", "empTuner", 30, "select");
    countModules();
    EXPECT_THAT(extras(), ElementsAre(R"(applaunch_add_extra_data("updatetype", "general"))",
                                      R"(applaunch_add_extra_data("timeinfo", "30"))",
                                      R"(applaunch_add_extra_data("uitype", "select"))"));
}

TEST_F(FWUpdateUIALaunch, ForcesTheUpdateForASingleModule)
{
    addPending("tuner", "empTuner", 30, "select");
    addPending("panel", "empPanel", 30, "force");
    countModules();
    EXPECT_EQ(extras().at(2), R"(applaunch_add_extra_data("uitype", "force"))");
}

TEST_F(FWUpdateUIALaunch, IsGivenUpWithoutTheApplicationsName)
{
    extras();
    EXPECT_EQ(state(), FWSVC_UI_LAUNCH_DONE);
    EXPECT_THAT(platform.log(), ElementsAre(error("Failed to set app id for launching popup app")));
    EXPECT_EQ(platform.calls().back(), "applaunch_destroy()");
    EXPECT_EQ(platform.openLaunchRequests(), 0);
    EXPECT_FALSE(platform.isSubscribed(kStatusKey));
    EXPECT_THAT(platform.launches(), IsEmpty());
    tick();
    EXPECT_EQ(state(), FWSVC_UI_CANCELLED);
}

TEST_F(FWUpdateUIALaunch, IsGivenUpWithoutARequest)
{
    platform.answer("applaunch_create", -1);
    agent.launch_Device_Upgrade_UI();
    EXPECT_EQ(state(), FWSVC_UI_LAUNCH_DONE);
    EXPECT_THAT(platform.log(), ElementsAre(error("Failed to set app id for launching popup app")));
}

TEST_F(FWUpdateUIALaunch, IsSentOnceWhenItIsTaken)
{
    agent.launch_Device_Upgrade_UI();
    const std::vector<LaunchAttempt> launches = platform.launches();
    ASSERT_EQ(launches.size(), 1U);
    EXPECT_EQ(launches.front().appId, "com.olvessa.tv.firmware.update");
    EXPECT_EQ(launches.front().extras.size(), 3U);
    EXPECT_FALSE(launches.front().wantsReply);
    EXPECT_EQ(platform.openLaunchRequests(), 0);
    EXPECT_THAT(platform.log(), IsEmpty());
    std::vector<std::string> steps;
    for (const std::string& call : platform.calls()) {
        steps.push_back(call.substr(0, call.find('(')));
    }
    EXPECT_THAT(steps,
                ElementsAre("applaunch_create", "applaunch_add_extra_data", "applaunch_add_extra_data",
                            "applaunch_add_extra_data", "applaunch_set_app_id", "pralis_notify_key_changed",
                            "applaunch_send_launch_request", "applaunch_destroy"));
}

TEST_F(FWUpdateUIALaunch, GivesTheUIFiveSecondsToStart)
{
    const auto start = std::chrono::steady_clock::now();
    agent.launch_Device_Upgrade_UI();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4900));
    EXPECT_EQ(state(), FWSVC_UI_LAUNCH_DONE);
    EXPECT_TRUE(tick());
    EXPECT_EQ(state(), FWSVC_UI_SHOWN);
}

TEST_F(FWUpdateUIALaunch, GoesOnWithoutHearingTheUI)
{
    platform.answer("pralis_notify_key_changed", -1);
    agent.launch_Device_Upgrade_UI();
    EXPECT_EQ(platform.launches().size(), 1U);
    EXPECT_THAT(platform.log(), ElementsAre(error("Error, fail in registering for fwstatus_UI_cb ")));
}

TEST_F(FWUpdateUIALaunch, IsTriedAgainAfterAFailure)
{
    platform.answerInTurn("applaunch_send_launch_request", {-1, -2});
    agent.launch_Device_Upgrade_UI();
    EXPECT_EQ(platform.launches().size(), 3U);
    EXPECT_THAT(platform.log(), ElementsAre(error("launch failed 1"), error("launch failed 2")));
    tick();
    EXPECT_EQ(state(), FWSVC_UI_SHOWN);
}

TEST_F(FWUpdateUIALaunch, IsTriedNineTimesAndThenCancelsTheSession)
{
    platform.answer("applaunch_send_launch_request", -1);
    const auto start = std::chrono::steady_clock::now();
    agent.launch_Device_Upgrade_UI();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4400));
    std::vector<LogLine> failures;
    for (int attempt = 1; attempt <= 9; ++attempt) {
        failures.push_back(error("launch failed " + std::to_string(attempt)));
    }
    EXPECT_EQ(platform.log(), failures);
    EXPECT_EQ(platform.launches().size(), 9U);
    EXPECT_EQ(platform.openLaunchRequests(), 0);
    EXPECT_EQ(state(), FWSVC_UI_LAUNCH_DONE);
    EXPECT_TRUE(tick());
    EXPECT_EQ(state(), FWSVC_UI_CANCELLED);
    EXPECT_TRUE(tick());
    EXPECT_EQ(state(), FWSVC_FINISH);
}

TEST_F(FWUpdateUIALaunch, LeavesAnAnswerThatComesBeforeItsEnd)
{
    for (const auto& [answer, after] : {std::pair(1, FWSVC_UI_ACCEPTED), {4, FWSVC_UI_CANCELLED}}) {
        platform.reset();
        std::thread launch([&] { agent.launch_Device_Upgrade_UI(); });
        EXPECT_TRUE(eventually([&] { return platform.launches().size() == 1; }));
        EXPECT_EQ(state(), FWSVC_UI_LAUNCHING);
        platform.changeSetting(kStatusKey, answer);
        launch.join();
        EXPECT_EQ(state(), after);
    }
}

// A tick may come before the launch has moved the state, and starts a second one.
TEST_F(FWUpdateUIALaunch, StaysTakenWhenOneBesideItFails)
{
    platform.answerInTurn("applaunch_send_launch_request", {-1, 0, -1, -1, -1, -1, -1, -1, -1, -1});
    std::thread refused([&] { agent.launch_Device_Upgrade_UI(); });
    EXPECT_TRUE(eventually([&] { return platform.launches().size() == 1; }));
    std::thread taken([&] { agent.launch_Device_Upgrade_UI(); });
    refused.join();
    taken.join();
    EXPECT_EQ(platform.launches().size(), 10U);
    EXPECT_EQ(state(), FWSVC_UI_LAUNCH_DONE);
    tick();
    EXPECT_EQ(state(), FWSVC_UI_SHOWN);
}

TEST_F(FWUpdateUIALaunch, ForgetsAnEarlierLaunch)
{
    agent.launch_Device_Upgrade_UI();
    extras(); // a second launch, which fails
    tick();
    EXPECT_EQ(state(), FWSVC_UI_CANCELLED);
}

} // namespace
