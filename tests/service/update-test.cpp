// The unattended update: as it should be, and with modules and programs that are not.
#include <algorithm>

#include "tests/service/support/service-test.h"

namespace service
{
namespace
{

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

class Update : public ServiceTest
{
protected:
    // Two pending modules, the first of them first in the registry.
    void installPair(const Json::Value& firstScript, const Information& firstInformation,
                     const Information& secondInformation, const std::string& variant = "scripted")
    {
        tv.installScripted("first", firstScript, Television::Controls::kProduct, variant);
        tv.installScripted("second", Json::objectValue, Television::Controls::kSystem);
        tv.deliverFor("first", firstInformation);
        tv.deliverFor("second", secondInformation);
    }

    void updateAtStandby()
    {
        startPending();
        goToStandby();
        expectEnd();
    }

    Json::Value locks() { return tv.platform().snapshot()["locks"]; }

    void expectTunerIsWrittenAndNothingLeftOver()
    {
        EXPECT_THAT(tv.texts(),
                    testing::IsSupersetOf(
                        {"Try doUpdateFirmwareAll",
                         "about total update time is 8000 ms, Lock the power during about that time.",
                         "pwrctl_lock_state done", "Tuner update time 8 sec", "Tuner Firmware Update Try",
                         "========== [ Tuner update succeeded ] ==========",
                         "EMP UMount Success /opt/usr/apps/appbinarymanager/empTuner.img",
                         "pwrctl_unlock_state done"}));
        EXPECT_EQ(tv.activeVersion("tuner"), "1.1");
        EXPECT_EQ(tv.activeFirmware("tuner"), Television::exampleFirmware("Tuner", "1.1"));
        EXPECT_FALSE(tv.exists(Television::packagePath("empTuner")));
        EXPECT_THAT(tv.loopMounts(), IsEmpty());
        EXPECT_THAT(locks()["held"], IsEmpty());
        EXPECT_EQ(tv.semaphore("show").text, "1\n");
        EXPECT_FALSE(tv.platform().snapshot()["flags"]["raised"].isMember(kResumeFlag));
    }
};

// ---- As it should be ----

TEST_F(Update, WritesTheDeliveredFirmwareAtStandbyAndCleansUp)
{
    constexpr int kExpectedSeconds = 8; // in the package's info.json
    tv.installExample("tuner");
    tv.installExample("EXT-soundbar"); // has no package, and is left alone
    tv.feedFile("empTuner", Television::examplePackage("empTuner", "1.1"));
    const auto soundbar = tv.activeFirmware("soundbar");
    EXPECT_EQ(tv.activeFirmware("tuner"), Television::exampleFirmware("Tuner", "1.0"));

    // At the first start the package is asked for, and delivered a little later.
    tv.switchOn();
    tv.startDaemon();
    expectEnd();
    tv.waitForPlatform(
        [](const Json::Value& set) { return set["packages"]["requests"][0]["state"] == "delivered"; },
        "the package is delivered");

    // At the next one it is found.
    tv.startDaemon();
    tv.waitForState(5);
    EXPECT_EQ(tv.read(kListFile), "tuner empTuner\n");
    ASSERT_THAT(tv.loopMounts(), SizeIs(1));
    EXPECT_THAT(tv.loopMounts()[0],
                HasSubstr(" " + Television::mountPoint("empTuner") + " squashfs ro,nosuid,nodev"));

    // Standby after ten minutes: the lock, and the write.
    goToStandby();
    tv.waitForPlatform([](const Json::Value& set) { return !set["locks"]["held"].empty(); },
                       "a power lock is held");
    tv.waitForText("========== [ Tuner update start ] ==========");
    ASSERT_THAT(locks()["held"], SizeIs(1));
    EXPECT_EQ(locks()["held"][0]["kind"], 2);
    EXPECT_EQ(locks()["held"][0]["duration_ms"], 5000 + kExpectedSeconds * 1000);
    EXPECT_THAT(tv.loopMounts(), Contains(HasSubstr("ro,nosuid,nodev")));
    EXPECT_EQ(tv.semaphore("show").text, "0\n");
    EXPECT_TRUE(tv.platform().snapshot()["flags"]["raised"].isMember(kResumeFlag));
    EXPECT_EQ(tv.activeVersion("tuner"), "1.0"); // until the last block is written

    expectEnd();
    expectTunerIsWrittenAndNothingLeftOver();
    EXPECT_EQ(tv.activeFirmware("soundbar"), soundbar);

    // And the next start finds nothing more to do.
    tv.startDaemon();
    expectEnd();
    EXPECT_EQ(tv.countOf("no update module item!\n"), 2U);
}

TEST_F(Update, LocksThePowerForAllPendingModulesTogether)
{
    installPending("alpha", Json::objectValue, {"1.1", 10, "none"});
    installPending("beta", Json::objectValue, {"1.1", 20, "none"});
    installPending("gamma", Json::objectValue, {"1.1", 0, "none"});
    installPending("delta", scriptOf("verdict", 0), {"1.1", 100, "none"});
    updateAtStandby();
    ASSERT_THAT(locks()["history"], SizeIs(1));
    EXPECT_EQ(locks()["history"][0]["duration_ms"], 3 * 5000 + 30'000);
    EXPECT_TRUE(wasWritten("alpha")); // gamma's two seconds may be too few on a busy machine
    EXPECT_TRUE(wasWritten("beta"));
    EXPECT_FALSE(wasWritten("delta"));
    EXPECT_TRUE(wasAsked("delta allUpdateDone()")); // every module is told of the end
}

TEST_F(Update, GoesOnWhenThePowerLockIsRefused)
{
    installPending("alpha");
    startPending();
    tv.platform().setFault("pwrctl_lock_state", -1);
    goToStandby();
    expectEnd();
    EXPECT_TRUE(tv.said("pwrctl_lock_state done"));
    EXPECT_TRUE(wasWritten("alpha"));
}

// ---- Modules that are slow ----

TEST_F(Update, AModuleThatIsTooSlowHoldsUpTheNextOne)
{
    const Information oneSecond{"1.1", 1, "none"};
    installPair(scriptOf("milliseconds", 60'000), oneSecond, oneSecond);
    startPending();
    goToStandby();
    expectEnd();
    EXPECT_THAT(tv.texts(),
                testing::IsSupersetOf({"first update timeout", "Error : first update timeout",
                                       "second update timeout", "Error : second update timeout"}));
    EXPECT_FALSE(wasAsked("first doUpdateReturns()"));
    // The second one's worker waits behind the write that still goes on.
    EXPECT_FALSE(tv.said("========== [ second update start ] =========="));
    EXPECT_EQ(tv.semaphore("show").text, "1\n");
    EXPECT_THAT(locks()["held"], IsEmpty());
}

TEST_F(Update, ASlowModuleFinishesByItselfAndTheNextOneFollows)
{
    installPair(scriptOf("milliseconds", 4000), {"1.1", 1, "none"}, {"1.1", 30, "none"});
    startPending();
    goToStandby();
    expectEnd();
    EXPECT_TRUE(tv.said("first update timeout"));
    EXPECT_FALSE(tv.said("second update timeout"));
    EXPECT_TRUE(wasWritten("first"));
    EXPECT_TRUE(wasWritten("second"));
    EXPECT_EQ(tv.semaphore("show").text, "1\n");
}

TEST_F(Update, TheSemaphoreIsFreeAtOnceAfterATimeout)
{
    installPending("alpha", scriptOf("milliseconds", 60'000), {"1.1", 1, "none"});
    startPending();
    // Another program queues for the semaphore while the module has it, and gets it as soon as the time is
    // over.
    goToStandby();
    tv.waitForText("========== [ alpha update start ] ==========");
    EXPECT_EQ(tv.semaphore("take").status, 0);
    EXPECT_FALSE(wasAsked("alpha doUpdateReturns()"));
    expectEnd();
    EXPECT_TRUE(tv.said("alpha update timeout"));
}

TEST_F(Update, AModuleThatHangsDoesNotHoldUpTheEnd)
{
    const Information noTime{"1.1", 0, "none"};
    installPair(scriptOf("hangs", true), noTime, noTime);
    updateAtStandby();
    EXPECT_TRUE(tv.said("first update time 0 sec"));
    EXPECT_TRUE(tv.said("Error : first update timeout")); // after two seconds
    EXPECT_TRUE(tv.said("Error : second update timeout"));
    EXPECT_TRUE(wasAsked("second allUpdateDone()"));
}

// ---- Modules that fail ----

TEST_F(Update, AFailedWriteLeavesThePackageAndTheNextModuleIsUpdated)
{
    Json::Value script;
    script["results"]["doUpdate"] = -5;
    script["errno"] = EIO;
    installPair(script, {}, {});
    updateAtStandby();
    EXPECT_TRUE(tv.said("Error: first Firmware doUpdate Fail -5 (5:Input/output error)"));
    EXPECT_FALSE(tv.said("========== [ first update succeeded ] =========="));
    EXPECT_TRUE(tv.exists(Television::packagePath("empfirst")));
    EXPECT_THAT(tv.loopMounts(), Contains(HasSubstr(Television::mountPoint("empfirst"))));
    EXPECT_TRUE(wasWritten("second"));
    EXPECT_FALSE(tv.exists(Television::packagePath("empsecond")));
}

TEST_F(Update, AModuleThatRefusesTheContextIsNotWritten)
{
    installPair(Json::objectValue, {}, {});
    startPending();
    Json::Value script;
    script["results"]["setContext"] = -1;
    tv.write("/var/lib/hardware/first.json", script.toStyledString());
    goToStandby();
    expectEnd();
    EXPECT_TRUE(tv.said("first Firmware Update Try"));
    EXPECT_FALSE(wasWritten("first"));
    EXPECT_TRUE(wasWritten("second"));
}

TEST_F(Update, AModuleThatHasChangedItsMindIsNotWritten)
{
    installPending("alpha");
    startPending();
    tv.write("/var/lib/hardware/alpha.json", scriptOf("verdict", 0).toStyledString());
    goToStandby();
    expectEnd();
    EXPECT_TRUE(tv.said("Error: alpha Firmware not need update"));
    EXPECT_FALSE(wasWritten("alpha"));
    EXPECT_THAT(tv.loopMounts(), IsEmpty());
    EXPECT_TRUE(tv.exists(Television::packagePath("empalpha")));
}

TEST_F(Update, AModuleThatCannotJudgeAVersionIsNotPending)
{
    Json::Value script;
    script["results"]["checkVersion"] = -1;
    installPending("alpha", script);
    tv.switchOn();
    tv.startDaemon();
    expectEnd();
    EXPECT_TRUE(tv.said("Error: alpha Firmware CheckVersion Fail"));
    EXPECT_TRUE(tv.said("no update module item!\n"));
}

TEST_F(Update, ALibraryWithoutARequiredEntryPointIsLeftOut)
{
    installPair(Json::objectValue, {}, {}, "without-doUpdate");
    updateAtStandby();
    EXPECT_THAT(tv.texts(), Contains(testing::AllOf(testing::StartsWith("Error: dlsym error: "),
                                                    HasSubstr("undefined symbol: doUpdate"))));
    EXPECT_TRUE(tv.said("Error: m_fwName (ret empId)  empty.(first)"));
    EXPECT_FALSE(tv.said("Need Update [first][empfirst]"));
    EXPECT_TRUE(wasWritten("second"));
}

TEST_F(Update, ALibraryWithoutAnOptionalEntryPointIsUpdated)
{
    installPair(Json::objectValue, {}, {}, "without-allUpdateDone");
    updateAtStandby();
    const std::vector<Message> messages = tv.messages();
    const auto isDebug = [](const Message& message) {
        return message.priority == 3 &&
               message.text.find("undefined symbol: allUpdateDone") != std::string::npos;
    };
    EXPECT_EQ(std::count_if(messages.begin(), messages.end(), isDebug), 1);
    EXPECT_TRUE(wasWritten("first"));
    EXPECT_TRUE(wasWritten("second"));
    EXPECT_FALSE(wasAsked("first allUpdateDone()"));
    EXPECT_TRUE(wasAsked("second allUpdateDone()"));
}

TEST_F(Update, AFileThatIsNoLibraryIsLeftOut)
{
    installPending("alpha");
    tv.write("/prd/usr/fwupdate/controls/broken.so", "not a library\n");
    tv.write("/prd/usr/fwupdate/controls/notes.txt", "not even by its name\n");
    updateAtStandby();
    EXPECT_THAT(tv.texts(), Contains(testing::StartsWith(
                                "Error: dlsym libfile: /prd/usr/fwupdate/controls/broken.so error: ")));
    EXPECT_TRUE(wasWritten("alpha"));
}

struct BadIdentifier {
    const char* name;
    const char* identifier;
    const char* message;
};

class RefusedIdentifier : public Update, public testing::WithParamInterface<BadIdentifier>
{
};

TEST_P(RefusedIdentifier, LeavesTheModuleWithoutPackage)
{
    tv.installScripted("alpha", scriptOf("id", GetParam().identifier));
    tv.deliverFor("alpha");
    tv.switchOn();
    tv.startDaemon();
    expectEnd();
    EXPECT_TRUE(tv.said(GetParam().message));
    EXPECT_TRUE(tv.said("no update module item!\n"));
    EXPECT_THAT(tv.platform().snapshot()["packages"]["requests"], IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Update, RefusedIdentifier,
    testing::Values(BadIdentifier{"WithoutEmp", "Tuner2", "Error: EMPID is Wrong (Tuner2)"},
                    BadIdentifier{"InUpperCase", "EMPTuner", "Error: EMPID is Wrong (EMPTuner)"},
                    BadIdentifier{"WithAnotherCharacter", "emp_tuner",
                                  "Error: use EMPID only English and numbers. emp_tuner"},
                    BadIdentifier{"Empty", "", "Error: EMPID is empty.(alpha)"}),
    [](const auto& bad) { return std::string(bad.param.name); });

// ---- The semaphore that all programs share ----

TEST_F(Update, WaitsForAnotherProgramThatHoldsTheSemaphore)
{
    installPending("alpha", Json::objectValue, {"1.1", 30, "none"});
    startPending();
    ASSERT_EQ(tv.semaphore("take").status, 0);
    goToStandby();
    tv.waitForText("alpha update time 30 sec");
    tv.jump(3600); // the wait has no limit, and no time-out runs yet
    EXPECT_EQ(tv.semaphore("show").text, "0\n");
    EXPECT_TRUE(tv.daemonRuns());
    EXPECT_FALSE(tv.said("alpha Firmware Update Try"));
    EXPECT_EQ(tv.semaphore("give").status, 0);
    expectEnd();
    EXPECT_TRUE(wasWritten("alpha"));
    EXPECT_FALSE(tv.said("alpha update timeout"));
    EXPECT_EQ(tv.semaphore("show").text, "1\n");
}

// ---- A daemon that is killed ----

TEST_F(Update, AfterAKillInTheMiddleOfTheWriteTheNextBootUpdates)
{
    tv.installExample("tuner");
    tv.deliverFile("empTuner", Television::examplePackage("empTuner", "1.1"));
    startPending();
    goToStandby();
    tv.waitForText("========== [ Tuner update start ] ==========");
    tv.waitUntil([&] { return tv.isChanged("/var/lib/hardware/tuner"); }, "the first blocks are written");
    tv.killDaemon();
    EXPECT_FALSE(tv.said("========== [ Tuner update succeeded ] =========="));
    EXPECT_EQ(tv.activeFirmware("tuner"), Television::exampleFirmware("Tuner", "1.0")); // intact
    tv.waitForPlatform([](const Json::Value& set) { return set["locks"]["held"].empty(); },
                       "the lock is freed");
    EXPECT_THAT(tv.platform().snapshot()["watchdog"]["registered"], IsEmpty());
    EXPECT_TRUE(tv.exists(Television::packagePath("empTuner")));
    tv.switchOff();

    tv.clearLog();
    startPending();
    goToStandby();
    expectEnd();
    EXPECT_EQ(tv.activeFirmware("tuner"), Television::exampleFirmware("Tuner", "1.1"));
    EXPECT_FALSE(tv.exists(Television::packagePath("empTuner")));
}

} // namespace
} // namespace service
