// The update that the user decides on: what the upgrade UI of the set is told and answers, and what becomes
// of it. The UI is the set's own application, a process beside the daemon; a test is the finger on its
// buttons.
#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "common/files/whole-file.h"
#include "tests/service/support/service-test.h"

namespace service
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kWorkingKey = "memory/enterprise/swupgrade/working_status";
constexpr int kClosed = 4;          // what the UI writes into the status key when it is closed or declined
constexpr int kOtherwiseOn = 1;     // a power state that is neither normal nor off
constexpr double kStartOfTheUI = 5; // seconds that the daemon gives it
constexpr int64_t kUpgradeReboot = 0x2000000c;

class Offer : public ServiceTest
{
protected:
    // A module whose delivered package is newer and is offered on the screen.
    void installOffered(const std::string& name, const Information& information = {"1.1", 5, "select"},
                        const Json::Value& script = Json::objectValue)
    {
        installPending(name, script, information);
    }

    void uiShall(const char* behaviour, unsigned int afterMilliseconds = 0)
    {
        tv.platform().callConsole("SetUpgradeUI", g_variant_new("(su)", behaviour, afterMilliseconds));
    }

    void setPackageManager(bool isReady)
    {
        tv.platform().callConsole("SetPackageManager", g_variant_new("(b)", isReady ? TRUE : FALSE));
    }

    // On, with a UI that behaves so and a package manager that is ready, but still without the daemon.
    void switchOnWith(const char* behaviour)
    {
        tv.switchOn();
        uiShall(behaviour);
        setPackageManager(true);
    }

    void startWith(const char* behaviour)
    {
        switchOnWith(behaviour);
        tv.startDaemon();
    }

    // Lets the time pass in which the UI starts, until the daemon takes the offer for shown.
    void waitForOffer()
    {
        tv.waitForState(8);
        tv.jump(kStartOfTheUI);
        tv.waitForState(10);
    }

    // As soon as the screen has that button.
    void click(const std::string& button)
    {
        const auto isClicked = [&] {
            try {
                tv.platform().callConsole("Click", g_variant_new("(s)", button.c_str()));
                return true;
            } catch (const vset::ControlError&) {
                return false;
            }
        };
        tv.waitUntil(isClicked, "the screen has the button " + button);
    }

    void waitForWrite(const std::string& firmware)
    {
        tv.waitForText("========== [ " + firmware + " update start ] ==========");
    }

    // The modules of the update list, in its order.
    std::vector<std::string> listed() const
    {
        std::vector<std::string> names;
        std::istringstream list(tv.read(kListFile));
        for (std::string name, package; list >> name >> package;) {
            names.push_back(name);
        }
        return names;
    }

    // The extras of the only launch request.
    std::map<std::string, std::string> extras()
    {
        std::map<std::string, std::string> extras;
        const Json::Value launches = section("launches");
        EXPECT_THAT(launches, SizeIs(1));
        for (const Json::Value& extra : launches[0]["extras"]) {
            extras[extra["key"].asString()] = extra["value"].asString();
        }
        return extras;
    }

    Json::Value section(const char* name) { return tv.platform().snapshot()[name]; }
    int setting(const char* key) { return section("settings")[key]["value"].asInt(); }

    // What the status key got since the UI was launched, from either side: the daemon hears of each write.
    std::vector<std::string> statusWrites() const
    {
        const std::string prefix = "fwstatus_ui_cb val ";
        std::vector<std::string> values;
        for (const std::string& text : tv.texts()) {
            if (text.rfind(prefix, 0) == 0) {
                values.push_back(text.substr(prefix.size()));
            }
        }
        return values;
    }

    // What the daemon wrote into the progress key.
    std::vector<std::string> progressWrites() const
    {
        std::vector<std::string> texts;
        for (const std::string& text : tv.texts()) {
            if (text.rfind("progress ", 0) == 0) {
                texts.push_back(text);
            }
        }
        return texts;
    }

    void expectUpgradeReboot()
    {
        const Json::Value reboots = section("reboots");
        ASSERT_THAT(reboots, SizeIs(1));
        EXPECT_EQ(reboots[0]["reason"].asInt64(), kUpgradeReboot);
    }

    // The daemon ended and the UI was never asked for.
    void expectNoOffer()
    {
        expectEnd();
        EXPECT_THAT(section("launches"), IsEmpty());
        EXPECT_FALSE(tv.said("8"));
        EXPECT_FALSE(wasWritten("alpha"));
        EXPECT_TRUE(tv.exists(Television::packagePath("empalpha"))); // for the next start
    }

    // The end of a session in which nothing was updated.
    void expectCancelled()
    {
        expectEnd();
        EXPECT_TRUE(tv.said("16"));
        EXPECT_EQ(setting(kWorkingKey), 0);
        EXPECT_FALSE(wasWritten("alpha"));
        EXPECT_TRUE(tv.exists(Television::packagePath("empalpha")));
        EXPECT_THAT(section("reboots"), IsEmpty());
        EXPECT_THAT(section("locks")["history"], IsEmpty());
        EXPECT_THAT(progressWrites(), IsEmpty());
    }
};

// ---- Accepted ----

// The tuner's new firmware as a package that is offered on the screen.
Files offeredTuner()
{
    const fs::path made = Television::examplePackage("empTuner", "1.1").parent_path() / "Tuner/Tuner.bin";
    const std::string image = common::readWhole(made);
    return {{"Tuner.bin", image}, {"info.json", formatInformation({"1.1", 8, "select"}, image)}};
}

TEST_F(Offer, AcceptedIsWrittenAndTheSetRebootsIntoIt)
{
    tv.installExample("tuner");
    tv.deliver("empTuner", offeredTuner());
    tv.switchOnWhole();
    tv.waitForText("service initialize");
    waitForOffer();
    EXPECT_EQ(extras(), (std::map<std::string, std::string>{
                            {"updatetype", "general"}, {"timeinfo", "8"}, {"uitype", "select"}}));
    EXPECT_EQ(setting(kWorkingKey), 1);
    EXPECT_EQ(tv.activeFirmware("tuner"), Television::exampleFirmware("Tuner", "1.0"));

    click("accept");
    waitForWrite("Tuner");
    ASSERT_THAT(section("locks")["held"], SizeIs(1));
    EXPECT_EQ(section("locks")["held"][0]["kind"], 0);
    EXPECT_EQ(section("locks")["held"][0]["duration_ms"], 5000 + 8000);
    EXPECT_EQ(setting(kStatusKey), 2);
    tv.waitForState(14);
    EXPECT_EQ(setting(kStatusKey), 3);
    EXPECT_EQ(setting(kProgressKey), 100);
    EXPECT_THAT(section("reboots"), IsEmpty()); // not before the user has seen it
    EXPECT_FALSE(tv.exists(Television::packagePath("empTuner")));

    // The package comes again, as it does on a set whose service has nothing newer.
    tv.deliver("empTuner", offeredTuner());
    click("close");
    tv.waitForText("service initialize", 2);
    tv.reconnect();
    tv.waitForText("service finalize");
    EXPECT_EQ(tv.countOf("no update module item!\n"), 1U);
    EXPECT_EQ(tv.activeFirmware("tuner"), Television::exampleFirmware("Tuner", "1.1"));
    EXPECT_THAT(statusWrites(), ElementsAre("1", "2", "3", "4"));
    EXPECT_THAT(progressWrites(), ElementsAre("progress 100"));
    expectUpgradeReboot();
    EXPECT_THAT(section("launches"), IsEmpty());
    EXPECT_EQ(setting(kStatusKey), 0);
    EXPECT_EQ(setting(kProgressKey), 0);
    EXPECT_EQ(setting(kWorkingKey), 0);
    tv.platform().powerOff(0);
    EXPECT_EQ(tv.waitForEnd(), 0);
}

TEST_F(Offer, ByAUiThatDoesAllByItselfEndsInTheReboot)
{
    installOffered("alpha");
    startWith("accept");
    tv.waitForState(19);
    EXPECT_TRUE(wasWritten("alpha"));
    EXPECT_THAT(statusWrites(), ElementsAre("1", "2", "3", "4"));
    EXPECT_EQ(setting(kWorkingKey), 0);
    EXPECT_THAT(section("locks")["held"], IsEmpty()); // given back: the reboot must not wait for it
    EXPECT_TRUE(wasAsked("alpha allUpdateDone()"));
    EXPECT_TRUE(tv.daemonRuns()); // until the set takes it down
    expectUpgradeReboot();
}

TEST_F(Offer, AcceptedWhileTheUiIsGivenItsTimeIsKept)
{
    installOffered("alpha", {"1.1", 60, "select"}, scriptOf("milliseconds", 8000));
    startWith("accept");
    waitForWrite("alpha");
    tv.jump(kStartOfTheUI); // the wait for the UI is over while the update runs
    tv.waitForState(14);
    EXPECT_TRUE(wasWritten("alpha"));
    EXPECT_FALSE(tv.said("9"));
    EXPECT_FALSE(tv.said("10"));
    tv.waitForState(19);
    EXPECT_EQ(tv.countOf("Try doUpdateFirmwareUI"), 1U);
    EXPECT_THAT(section("launches"), SizeIs(1));
}

TEST_F(Offer, IsForcedOnTheUserByOneOfItsModules)
{
    installOffered("alpha", {"1.1", 5, "select"});
    installOffered("beta", {"1.1", 7, "force"});
    startWith("decline"); // tries to
    waitForOffer();
    EXPECT_EQ(extras()["uitype"], "force");
    EXPECT_EQ(extras()["timeinfo"], "12");
    EXPECT_THAT(tv.read("/var/log/platform.log"), HasSubstr("\"decline\" is not possible now"));
    const auto clickNow = [&](const char* button) {
        tv.platform().callConsole("Click", g_variant_new("(s)", button));
    };
    EXPECT_THROW(clickNow("decline"), vset::ControlError);
    EXPECT_THROW(clickNow("close"), vset::ControlError);
    EXPECT_THAT(statusWrites(), IsEmpty());
    click("accept");
    tv.waitForState(19);
    EXPECT_TRUE(wasWritten("alpha"));
    EXPECT_TRUE(wasWritten("beta"));
    expectUpgradeReboot();
}

TEST_F(Offer, IsMadeAlsoWhileAScreenIsMirrored)
{
    installOffered("alpha");
    switchOnWith("accept");
    tv.platform().setSetting(kMirroringKey, 1);
    tv.startDaemon();
    tv.waitForText("g_main loop running in main thread!\n");
    tv.waitForState(5);
    tv.platform().setSetting(kMirroringKey, 1); // the daemon hears of writes alone
    tv.waitForText("[" + std::string(kMirroringKey) + "] pralis get value : [1]");
    tv.waitForState(19);
    EXPECT_TRUE(wasWritten("alpha"));
    expectUpgradeReboot();
}

// ---- Not accepted ----

TEST_F(Offer, DeclinedLeavesAllAsItWas)
{
    installOffered("alpha");
    startWith("interactive");
    waitForOffer();
    EXPECT_EQ(setting(kWorkingKey), 1);
    click("decline");
    expectCancelled();
    EXPECT_THAT(statusWrites(), ElementsAre("4"));
}

TEST_F(Offer, ClosedWithoutAnAnswerLeavesAllAsItWas)
{
    installOffered("alpha");
    startWith("close"); // while the daemon still gives the UI its time
    expectCancelled();
    EXPECT_FALSE(tv.said("10"));
}

TEST_F(Offer, DeclinedComesAgainAtTheNextStart)
{
    installOffered("alpha");
    startWith("decline");
    expectCancelled();
    uiShall("accept");
    tv.startDaemon();
    tv.waitForState(19);
    EXPECT_TRUE(wasWritten("alpha"));
}

TEST_F(Offer, ThatNobodyAnswersStays)
{
    installOffered("alpha");
    startWith("ignore");
    waitForOffer();
    tv.jump(3600);
    tv.waitForText("10", tv.countOf("10") + 2);
    EXPECT_TRUE(tv.daemonRuns());
    EXPECT_EQ(setting(kWorkingKey), 1);
    EXPECT_FALSE(wasWritten("alpha"));
    EXPECT_THAT(statusWrites(), IsEmpty());
    EXPECT_THAT(section("launches"), SizeIs(1));
}

TEST_F(Offer, DeclinedBesideAModuleForStandbyIsWrittenThereAllTheSame)
{
    installOffered("alpha");
    installPending("beta");
    startWith("decline");
    tv.waitForState(17);
    EXPECT_EQ(setting(kWorkingKey), 0);
    EXPECT_TRUE(tv.daemonRuns());
    EXPECT_FALSE(wasWritten("alpha"));
    EXPECT_FALSE(wasWritten("beta"));

    goToStandby();
    expectEnd();
    EXPECT_TRUE(wasWritten("alpha"));
    EXPECT_TRUE(wasWritten("beta"));
    EXPECT_EQ(tv.countOf("17"), 1U); // the second's timer had ended
    ASSERT_THAT(section("locks")["history"], SizeIs(1));
    EXPECT_EQ(section("locks")["history"][0]["kind"], 2);
    EXPECT_EQ(section("locks")["history"][0]["duration_ms"], 2 * 5000 + 2 * 5000);
}

TEST_F(Offer, AcceptedLeavesAModuleForStandbyToStandby)
{
    installOffered("alpha");
    installPending("beta");
    startWith("accept");
    tv.waitForState(19);
    EXPECT_TRUE(wasWritten("alpha"));
    EXPECT_FALSE(wasWritten("beta"));
    EXPECT_TRUE(tv.exists(Television::packagePath("empbeta")));
    EXPECT_EQ(section("locks")["history"][0]["duration_ms"], 5000 + 5000); // alpha's alone
}

// ---- While it runs ----

TEST_F(Offer, ClosedWhileTheUpdateRunsIsClosedOnlyAtTheEnd)
{
    installOffered("alpha", {"1.1", 60, "select"}, scriptOf("milliseconds", 4000));
    startWith("interactive");
    waitForOffer();
    click("accept");
    waitForWrite("alpha");
    tv.waitForState(12);
    tv.platform().setSetting(kStatusKey, kClosed); // a UI that was ended in another way
    tv.waitForText("fwstatus_ui_cb val 4");
    tv.waitForState(14);
    EXPECT_TRUE(wasWritten("alpha"));
    tv.jump(3600); // that answer was not kept
    tv.waitForText("14", tv.countOf("14") + 2);
    EXPECT_THAT(section("reboots"), IsEmpty());
    tv.platform().setSetting(kStatusKey, kClosed);
    tv.waitForState(19);
    expectUpgradeReboot();
}

TEST_F(Offer, WithAModuleThatIsTooSlowGoesOnAndReboots)
{
    for (const char* name : {"alpha", "beta", "gamma"}) {
        installOffered(name, {"1.1", 10, "select"});
    }
    startWith("interactive");
    waitForOffer();
    const std::vector<std::string> order = listed(); // as the directory has them
    ASSERT_THAT(order, SizeIs(3));
    tv.write("/var/lib/hardware/" + order[1] + ".json", scriptOf("milliseconds", 17'000).toStyledString());
    click("accept");
    waitForWrite(order[1]);
    tv.jump(12); // the expected time and two seconds
    tv.waitForText("Error : " + order[1] + " update timeout");
    EXPECT_TRUE(wasWritten(order[0]));
    EXPECT_FALSE(wasAsked(order[1] + " doUpdateReturns()"));
    tv.waitForState(14);

    const std::vector<std::string> calls = tv.calls();
    const auto positionOf = [&](const std::string& beginning) {
        return std::find_if(calls.begin(), calls.end(),
                            [&](const std::string& call) { return call.rfind(beginning, 0) == 0; }) -
               calls.begin();
    };
    EXPECT_LT(positionOf(order[1] + " doUpdateReturns("), positionOf(order[2] + " doUpdate("));
    EXPECT_TRUE(wasWritten(order[1])); // late, but whole
    EXPECT_TRUE(wasWritten(order[2]));
    EXPECT_FALSE(tv.said("Error : " + order[2] + " update timeout"));
    ASSERT_THAT(section("locks")["held"], SizeIs(1));
    EXPECT_EQ(section("locks")["held"][0]["duration_ms"], 3 * 5000 + 30'000);
    EXPECT_THAT(progressWrites(), ElementsAre("progress 100"));
    click("close");
    tv.waitForState(19);
    expectUpgradeReboot();
}

TEST_F(Offer, WhoseOnlyWriteFailsRebootsAndIsMadeAgain)
{
    Json::Value script;
    script["results"]["doUpdate"] = -5;
    installOffered("alpha", {"1.1", 5, "select"}, script);
    tv.switchOnWhole();
    tv.waitForText("service initialize");
    uiShall("accept"); // kept over the reboot
    tv.waitForText("service initialize", 2);
    tv.reconnect();
    expectUpgradeReboot();
    EXPECT_FALSE(wasWritten("alpha"));
    EXPECT_FALSE(tv.said("========== [ alpha update succeeded ] =========="));

    tv.write("/var/lib/hardware/alpha.json", "{}"); // the second attempt may succeed
    tv.waitForText("========== [ alpha update succeeded ] ==========");
    EXPECT_TRUE(wasWritten("alpha"));
}

TEST_F(Offer, OfASetThatIsNotSwitchedOnIsReportedAsFinishedButNeverEnds)
{
    installOffered("alpha");
    startWith("interactive");
    waitForOffer();
    tv.jump(600);
    tv.setPower(kOtherwiseOn);
    click("accept");
    tv.waitForState(14);
    EXPECT_EQ(setting(kStatusKey), 3);
    EXPECT_EQ(setting(kProgressKey), 100);
    EXPECT_FALSE(wasWritten("alpha"));
    EXPECT_THAT(section("locks")["history"], IsEmpty());

    click("close");
    tv.waitForState(15);
    tv.jump(3600);
    tv.waitForText("15", tv.countOf("15") + 3);
    EXPECT_TRUE(tv.daemonRuns());
    EXPECT_EQ(setting(kWorkingKey), 0);
    EXPECT_THAT(section("reboots"), IsEmpty());
    EXPECT_FALSE(tv.said("18"));

    // Its work is repeated every second: whoever takes the working status now loses it.
    tv.platform().setSetting(kWorkingKey, 1);
    tv.waitForPlatform([](const Json::Value& set) { return set["settings"][kWorkingKey]["value"] == 0; },
                       "the daemon gives back what is not its own");
    tv.setPower(kNormal);
    tv.setPower(kStandby); // ends the service by an unattended update
    expectEnd();
    EXPECT_TRUE(wasWritten("alpha"));
}

TEST_F(Offer, AcceptedIsCutOffByAPowerChangeInTheFirstTenMinutes)
{
    installOffered("alpha", {"1.1", 60, "select"}, scriptOf("milliseconds", 20'000));
    startWith("interactive");
    waitForOffer();
    click("accept");
    waitForWrite("alpha");
    tv.waitForState(12);
    tv.setPower(kStandby);
    expectEnd();
    EXPECT_FALSE(wasWritten("alpha"));
    EXPECT_TRUE(tv.exists(Television::packagePath("empalpha")));
    EXPECT_EQ(setting(kWorkingKey), 1);          // nobody has given it back
    EXPECT_EQ(tv.semaphore("show").text, "0\n"); // nor this
    EXPECT_THAT(section("reboots"), IsEmpty());

    // Hence no second offer in the same boot.
    tv.setPower(kNormal);
    tv.startDaemon();
    EXPECT_EQ(tv.waitForDaemon(), 0);
    EXPECT_THAT(section("launches"), SizeIs(1));
    EXPECT_EQ(setting(kWorkingKey), 1);
}

TEST_F(Offer, AcceptedASecondTimeInTheSameBootStartsAtAHundred)
{
    installOffered("alpha");
    startWith("accept");
    tv.waitForState(19); // this set only notes the reboot
    tv.killDaemon();
    uiShall("interactive");
    tv.deliverFor("alpha", {"1.2", 30, "select"});
    tv.write("/var/lib/hardware/alpha.json", scriptOf("milliseconds", 4000).toStyledString());
    tv.startDaemon();
    tv.waitForState(5);
    click("accept");
    tv.waitForText("========== [ alpha update start ] ==========", 2);
    tv.waitForState(12);
    EXPECT_EQ(setting(kProgressKey), 100);
    tv.waitForText("14", tv.countOf("14") + 1);
    EXPECT_THAT(progressWrites(), ElementsAre("progress 100")); // of the first time
}

// ---- Whether it may be made ----

TEST_F(Offer, IsNotMadeWithoutAPackageManager)
{
    installOffered("alpha");
    tv.switchOn();
    setPackageManager(false);
    tv.startDaemon();
    tv.waitForState(6);
    tv.setClockRate(20);
    expectNoOffer();
    EXPECT_TRUE(tv.said("7"));
    EXPECT_EQ(setting(kWorkingKey), 0);
    const std::vector<Message> messages = tv.messages();
    const auto first = std::find_if(messages.begin(), messages.end(),
                                    [](const Message& message) { return message.text == "6"; });
    const auto last = std::find_if(messages.begin(), messages.end(),
                                   [](const Message& message) { return message.text == "7"; });
    EXPECT_GE(last->time - first->time, 58'000'000); // a minute, of which each second shows only its end
}

TEST_F(Offer, WaitsForAPackageManagerThatIsLate)
{
    installOffered("alpha");
    tv.switchOn();
    uiShall("accept");
    setPackageManager(false);
    tv.startDaemon();
    tv.waitForState(6);
    tv.waitForText("6", 3);
    EXPECT_THAT(section("launches"), IsEmpty());
    setPackageManager(true);
    tv.waitForState(19);
    EXPECT_TRUE(wasWritten("alpha"));
}

TEST_F(Offer, IsNotMadeInTheFactory)
{
    installOffered("alpha");
    switchOnWith("accept");
    tv.write("/tmp/FACTORY_PRODCUTION", ""); // the platform's spelling
    tv.startDaemon();
    expectNoOffer();
    EXPECT_EQ(setting(kWorkingKey), 0);
}

TEST_F(Offer, IsNotMadeOnASetThatIsNotSwitchedOn)
{
    installOffered("alpha");
    switchOnWith("accept");
    tv.setPower(kStandby);
    tv.startDaemon();
    expectNoOffer();
}

TEST_F(Offer, IsNotMadeWhileAnotherUpgradeWorks)
{
    installOffered("alpha");
    switchOnWith("accept");
    tv.platform().setSetting(kWorkingKey, 1);
    tv.startDaemon();
    expectNoOffer();
    EXPECT_EQ(setting(kWorkingKey), 1); // the other's
}

TEST_F(Offer, IsNotMadeWhenTheWorkingStatusCannotBeRead)
{
    installOffered("alpha");
    switchOnWith("accept");
    tv.platform().setFault("pralis_get_int", -1, -1, kWorkingKey);
    tv.startDaemon();
    expectNoOffer();
    EXPECT_TRUE(tv.said("Failed to read pralis [0]"));
    EXPECT_EQ(setting(kWorkingKey), 0);
}

TEST_F(Offer, ThatIsNotMadeLeavesModulesForStandbyToWait)
{
    installOffered("alpha");
    installPending("beta");
    switchOnWith("accept");
    tv.platform().setSetting(kWorkingKey, 1);
    tv.startDaemon();
    tv.waitForState(7);
    goToStandby();
    expectEnd();
    EXPECT_THAT(section("launches"), IsEmpty());
    EXPECT_TRUE(wasWritten("beta"));
}

// ---- Launch ----

TEST_F(Offer, IsGivenUpAfterNineFailedLaunches)
{
    installOffered("alpha");
    switchOnWith("accept");
    tv.platform().setFault("applaunch_send_launch_request", -1);
    tv.startDaemon();
    expectCancelled();
    for (int attempt = 1; attempt <= 9; ++attempt) {
        EXPECT_EQ(tv.countOf("launch failed " + std::to_string(attempt)), 1U);
    }
    EXPECT_FALSE(tv.said("launch failed 10"));
    EXPECT_FALSE(tv.said("10"));
    EXPECT_THAT(statusWrites(), IsEmpty());
    EXPECT_FALSE(section("launches")[0]["sent"].asBool());
}

TEST_F(Offer, IsMadeByTheLastOfNineLaunches)
{
    installOffered("alpha");
    switchOnWith("accept");
    tv.platform().setFault("applaunch_send_launch_request", -1, 8);
    tv.startDaemon();
    tv.waitForState(19);
    EXPECT_EQ(tv.countOf("launch failed 8"), 1U);
    EXPECT_TRUE(wasWritten("alpha"));
}

} // namespace
} // namespace service
