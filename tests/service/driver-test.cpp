// The driver of a set itself: what it does when the set's power is cut, when the waiting person has enough,
// and with programs that run alone.
#include <chrono>
#include <unistd.h>

#include "tests/service/support/service-test.h"

namespace service
{
namespace
{

using tarnwick::Alone;
using tarnwick::PowerWasCut;
using tarnwick::TelevisionError;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* kWriteThrice =
    "for block in a b c; do echo $block >>/var/lib/hardware/chip; done; exit 5";

class Driver : public ServiceTest
{
protected:
    // A tuner that has an update to do, at standby.
    void switchOnPending(std::optional<unsigned int> cutAtWrite)
    {
        tv.installExample("tuner");
        tv.putPackage(Television::examplePackage("empTuner", "1.1"), Television::Package::kDelivered);
        tv.tarnwick::Television::switchOn(cutAtWrite);
        tv.waitForState(5);
    }
};

template <typename Action>
std::string whatIsThrown(Action action)
{
    try {
        action();
    } catch (const PowerWasCut& cut) {
        return cut.what();
    } catch (const TelevisionError& error) {
        return std::string("another error: ") + error.what();
    }
    return "nothing";
}

TEST_F(Driver, TellsAPowerCutOutOfWhateverWaits)
{
    switchOnPending(5);
    goToStandby();
    const std::string cut = "the power was cut at write 5 (pwrite64 to /var/lib/hardware/tuner)";
    EXPECT_EQ(whatIsThrown([&] { tv.waitForDaemon(); }), cut);
    EXPECT_EQ(whatIsThrown([&] { tv.tarnwick::Television::power(); }), cut);
    EXPECT_EQ(whatIsThrown([&] { tv.jump(1); }), cut);
    EXPECT_EQ(tv.waitForEnd(), 3);
    EXPECT_EQ(tv.writes(), std::nullopt);

    tv.clearLog();
    tv.tarnwick::Television::switchOn(); // a new life: the cut is no part of it
    tv.waitForState(5);
    EXPECT_EQ(tv.tarnwick::Television::power(), kNormal);
}

TEST_F(Driver, CountsTheWritesOfAnUpdateThatWasNotCut)
{
    switchOnPending(1'000'000);
    EXPECT_EQ(tv.writes(), std::nullopt);
    goToStandby();
    EXPECT_EQ(tv.waitForDaemon(), 0);
    EXPECT_GT(tv.writes().value_or(0), 100U);
    EXPECT_FALSE(tv.daemonEnd()->isBySignal);
}

TEST_F(Driver, PowersOffWithTheEvent)
{
    tv.tarnwick::Television::switchOn();
    tv.waitForText("service finalize"); // nothing is installed
    tv.powerOff();
    EXPECT_FALSE(tv.isOn());
    EXPECT_EQ(tv.waitForEnd(), 0);
    tv.powerOff(); // of a set that is off: nothing
}

TEST_F(Driver, KnowsTheNewestBoot)
{
    tv.tarnwick::Television::switchOn();
    tv.waitForText("service finalize");
    tv.reboot();
    tv.waitForBoot(2);
    tv.waitForText("service finalize", 2);
    const auto starts = [](const std::vector<Message>& messages) {
        return std::count_if(messages.begin(), messages.end(),
                             [](const Message& message) { return message.text == "service initialize"; });
    };
    EXPECT_EQ(starts(tv.messages()), 2);
    EXPECT_EQ(starts(tv.messagesOfBoot()), 1);
}

TEST_F(Driver, TellsTheStoryWhileItWaits)
{
    std::vector<std::string> story;
    tv.tellStory([&](const std::string& line) { story.push_back(line); });
    switchOnPending(std::nullopt);
    goToStandby();
    tv.waitForDaemon();
    EXPECT_THAT(story, AllOf(Contains(HasSubstr("The set goes to standby: the unattended update begins.")),
                             Contains(HasSubstr("Tuner: written."))));
}

TEST_F(Driver, KnowsWhatIsOnTheScreen)
{
    tv.installExample("panel");
    tv.putFirmware(Television::examplePackage("empPanel", "1.1").parent_path() / "Panel");
    tv.tarnwick::Television::switchOn();
    tv.waitUntil([&] { return tv.upgradeUiView() == "offer"; }, "the offer is on the screen");
    EXPECT_EQ(tv.progress("nothing"), std::nullopt);
    tv.clickUpgradeUi("accept");
    tv.waitUntil([&] { return tv.progress("panel").value_or(0) > 0; }, "the library tells its progress");
    EXPECT_GT(tv.powerLocks(), 0U);
    tv.waitUntil([&] { return tv.upgradeUiView() == "finished"; }, "the end is told");
}

// ---- Programs alone ----

TEST_F(Driver, RunsAProgramAlone)
{
    std::vector<std::string> lines;
    const Alone alone{std::nullopt, 1.0, 30, [&](const std::string& line) { lines.push_back(line); }};
    EXPECT_EQ(tv.runAlone({"sh", "-c", "echo one; printf two; echo three >&2; exit 7"}, alone), 7);
    EXPECT_THAT(lines, ElementsAre("one", "two"));
    EXPECT_THAT(tv.launcherOutput(), HasSubstr("three\n"));
    EXPECT_EQ(tv.runAlone({"cat"}), 0) << "there is something to read";
    EXPECT_THAT(lines, ElementsAre("one", "two"));
}

TEST_F(Driver, CutsThePowerOfAProgram)
{
    EXPECT_EQ(whatIsThrown([&] { tv.runAlone({"sh", "-c", kWriteThrice}, {2}); }),
              "the power was cut at write 2 (write to /var/lib/hardware/chip)");
    EXPECT_EQ(tv.read("/var/lib/hardware/chip"), "a\n");
    EXPECT_EQ(tv.runAlone({"sh", "-c", kWriteThrice}, {9}), 5);
    EXPECT_EQ(tv.writes(), 3U);
}

TEST_F(Driver, GivesAProgramItsLimit)
{
    Alone alone;
    alone.limit = 0.5;
    EXPECT_THAT(whatIsThrown([&] { tv.runAlone({"sleep", "600"}, alone); }),
                StartsWith("another error: sleep does not end in the set"));
}

TEST_F(Driver, KeepsTheTwoOutputsOfAProgramApart)
{
    tv.tarnwick::Television::switchOnAlone();
    const Output said = tv.execute({"sh", "-c", "echo here; echo there >&2; kill -9 $$"});
    EXPECT_EQ(said.status, 137);
    EXPECT_EQ(said.text, "here\n");
    EXPECT_EQ(said.errors, "there\n");
}

// What it leaves behind holds no wait: a library may start programs too.
TEST_F(Driver, WaitsForNoProgramThatWasLeftRunning)
{
    tv.tarnwick::Television::switchOnAlone();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(tv.execute({"sh", "-c", "sleep 600 & echo done"}).text, "done\n");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

// ---- Enough ----

struct Enough {
};

TEST_F(Driver, EndsEveryWaitWhenItsWatchSaysSo)
{
    const auto start = std::chrono::steady_clock::now();
    tv.tarnwick::Television::switchOn();
    int looks = 0;
    tv.watchWaits([&] { ++looks > 3 ? throw Enough{} : void(); });
    EXPECT_THROW(tv.waitForText("never said"), Enough);
    looks = 0;
    EXPECT_THROW(tv.execute({"sleep", "600"}), Enough);
    looks = 0;
    EXPECT_THROW(tv.waitForEnd(), Enough);
    looks = 0;
    EXPECT_THROW(tv.runAlone({"sleep", "600"}, {}), Enough);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

// ---- One user ----

TEST(RootlessDriver, HasASetOfOneUser)
{
    tarnwick::Making making;
    making.vset = service::vsetProgram();
    making.isRootless = true;
    tarnwick::Television tv(making);
    if (tv.command("run", {"-u", "--", "true"}).status != 0) {
        GTEST_SKIP() << "this machine lets nobody make user namespaces";
    }
    tv.write("/var/lib/hardware/chip", "old");
    tv.switchOn();
    EXPECT_EQ(tv.waitForDaemon(), 0); // nothing is installed
    EXPECT_EQ(tv.execute({"id", "-u"}).text, "0\n");
    EXPECT_EQ(tv.execute({"stat", "-c", "%u", "/var/lib/hardware", "/var/lib/hardware/chip"}).text, "0\n0\n");
    tv.powerOff();
}

} // namespace
} // namespace service
