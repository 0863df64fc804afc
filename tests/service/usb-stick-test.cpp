// A technician at a television that is on: a stick, and fwctl beside the running daemon.
#include <future>

#include "tests/service/support/service-test.h"

namespace service
{
namespace
{

using testing::HasSubstr;
using testing::Not;

class UsbStick : public ServiceTest
{
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        tv.installExample("tuner");
        tv.installSignatureLibrary();
    }
    // A television with another module that has an update to wait with.
    void startDaemonWithPending(int updateMilliseconds = 150)
    {
        installPending("alpha", scriptOf("milliseconds", updateMilliseconds), {"1.1", 20, "none"});
        startPending();
    }
    // `text` is all that it says, as a person at a terminal has it.
    Output fwctl(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), "fwctl");
        Output said = tv.execute(arguments);
        said.text += said.errors;
        return said;
    }
    Output usb(const std::string& command)
    {
        return fwctl({"usb", command, kStick, "--key-file", kContentKeyFile});
    }
};

TEST_F(UsbStick, IsCheckedAndInstalledWhileTheDaemonRuns)
{
    startDaemonWithPending();
    EXPECT_THAT(fwctl({"list"}).text, HasSubstr("alpha   package  1.0        1.1"));
    tv.insertStick("Tuner", "1.1");
    const Output checked = usb("check");
    EXPECT_EQ(checked.status, 0) << checked.text;
    EXPECT_THAT(checked.text, HasSubstr("tuner: newer, about 8 s\n"));
    EXPECT_THAT(checked.text, Not(HasSubstr("no signature library")));
    EXPECT_EQ(tv.activeVersion("tuner"), "1.0");

    const Output installed = usb("install");
    EXPECT_EQ(installed.status, 0) << installed.text;
    EXPECT_THAT(installed.text, HasSubstr("tuner: updated, 1.1 is installed\n"));
    EXPECT_EQ(tv.activeFirmware("tuner"), Television::exampleFirmware("Tuner", "1.1"));
    EXPECT_EQ(usb("install").status, 3);
    tv.removeStick();
    EXPECT_EQ(usb("check").status, 1);

    EXPECT_TRUE(tv.daemonRuns());
    goToStandby(); // and the daemon's own update is none the worse for it
    expectEnd();
    EXPECT_TRUE(wasWritten("alpha"));
}

TEST_F(UsbStick, WithAStrangersImageInstallsNothing)
{
    startDaemonWithPending();
    tv.insertStick("Tuner", "1.1", "stranger");
    const Output checked = usb("check");
    EXPECT_EQ(checked.status, 1);
    EXPECT_THAT(checked.text, HasSubstr("Tuner.bin is NOT signed"));
    EXPECT_EQ(usb("install").status, 1);
    EXPECT_FALSE(tv.isChanged("/var/lib/hardware/tuner"));
}

TEST_F(UsbStick, WaitsForTheUpdateOfAStandby)
{
    startDaemonWithPending(5000);
    tv.insertStick("Tuner", "1.1");
    goToStandby();
    tv.waitForText("========== [ alpha update start ] ==========");
    const Output installed = usb("install");
    EXPECT_EQ(installed.status, 0) << installed.text;
    EXPECT_THAT(installed.text, HasSubstr("waiting for tarnwick (process "));
    EXPECT_TRUE(wasWritten("alpha"));
    EXPECT_EQ(tv.activeVersion("tuner"), "1.1");
    expectEnd();
}

TEST_F(UsbStick, IsWaitedForByTheUpdateOfAStandby)
{
    startDaemonWithPending();
    tv.insertStick("Tuner", "1.1");
    std::future<Output> installing = std::async(std::launch::async, [this] { return usb("install"); });
    tv.waitForPlatform([](const Json::Value& set) { return !set["locks"]["held"].empty(); },
                       "the installation has begun");
    goToStandby();
    tv.waitForText("========== [ alpha update start ] ==========");
    EXPECT_EQ(tv.activeVersion("tuner"), "1.1"); // was whole before
    const Output installed = installing.get();
    EXPECT_EQ(installed.status, 0) << installed.text;
    expectEnd();
    EXPECT_TRUE(wasWritten("alpha"));
}

// The daemon runs all the while, and has the semaphore open.
TEST_F(UsbStick, ATurnThatNobodyHasIsFoundAndGivenBackWhileTheDaemonRuns)
{
    startDaemonWithPending();
    tv.semaphore("take"); // by a program that has ended since
    const Output found = fwctl({"doctor"});
    EXPECT_EQ(found.status, 5);
    EXPECT_THAT(found.text, HasSubstr("whoever took it has ended"));
    goToStandby();
    tv.waitForText("alpha update time 20 sec");
    const Output why = fwctl({"why", "alpha"});
    EXPECT_THAT(why.text,
                HasSubstr("whoever took it has ended: a run of the daemon waits for its turn for ever"));
    EXPECT_EQ(fwctl({"doctor", "--fix"}).status, 0);
    expectEnd();
    EXPECT_TRUE(wasWritten("alpha"));
}

TEST_F(UsbStick, DoctorLeavesTheTurnOfTheDaemonAlone)
{
    startDaemonWithPending(5000);
    goToStandby();
    tv.waitForText("========== [ alpha update start ] ==========");
    const Output doctor = fwctl({"doctor", "--fix"});
    EXPECT_EQ(doctor.status, 0) << doctor.text;
    EXPECT_THAT(doctor.text, HasSubstr("tarnwick (process "));
    EXPECT_THAT(doctor.text, HasSubstr("is updating just now"));
    EXPECT_THAT(tv.semaphore("show").text, HasSubstr("0"));
    expectEnd();
    EXPECT_TRUE(wasWritten("alpha"));
}

TEST_F(UsbStick, WhyCountsTheTenMinutesByTheSetsClock)
{
    startDaemonWithPending();
    EXPECT_THAT(fwctl({"why", "alpha"}).text,
                HasSubstr("a standby within its first ten minutes only ends it"));
    tv.jump(600);
    const Output why = fwctl({"why", "alpha"});
    EXPECT_EQ(why.status, 0);
    EXPECT_THAT(why.text, Not(HasSubstr("but: ")));
}

} // namespace
} // namespace service
