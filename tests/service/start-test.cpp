// From the start of the daemon to the pending list, or to its early end.
#include <algorithm>
#include <cctype>

#include "tests/service/support/service-test.h"

namespace service
{
namespace
{

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr int kSoftwareVersion = 128; // property of the set

class Start : public ServiceTest
{
protected:
    // Scripted modules of the product, in the order in which their directory lists them.
    std::vector<std::string> installInDirectoryOrder(const std::vector<std::string>& names)
    {
        for (const std::string& name : names) {
            tv.installScripted(name);
        }
        std::vector<std::string> order;
        for (const fs::directory_entry& entry :
             fs::directory_iterator(tv.outside("/prd/usr/fwupdate/controls"))) {
            order.push_back(entry.path().stem());
        }
        return order;
    }

    std::vector<std::string> requestedPackages()
    {
        std::vector<std::string> names;
        const Json::Value set = tv.platform().snapshot();
        for (const Json::Value& request : set["packages"]["requests"]) {
            names.push_back(request["package"].asString());
        }
        return names;
    }

    Json::Value watchdog() { return tv.platform().snapshot()["watchdog"]; }

    bool showedAState() const
    {
        const std::vector<std::string> texts = tv.texts();
        return std::any_of(texts.begin(), texts.end(), [](const std::string& text) {
            return !text.empty() && std::isdigit(text[0]) != 0;
        });
    }
};

// ---- Nothing to do ----

TEST_F(Start, EndsWhenNothingIsPending)
{
    installPending("alpha", scriptOf("verdict", 0));
    tv.switchOn();
    tv.startDaemon();
    expectEnd();
    EXPECT_TRUE(
        tv.said("Error: " + Television::packagePath("empalpha") + " not need update, version is 1.0"));
    EXPECT_TRUE(tv.said("no update module item!\n"));
    EXPECT_FALSE(tv.said("need update item, wait ui or bg fw update\n"));
}

TEST_F(Start, EndsWhenTheOnlyVerdictIsNeitherYesNorNo)
{
    installPending("alpha", scriptOf("verdict", 2));
    tv.switchOn();
    tv.startDaemon();
    expectEnd();
    EXPECT_TRUE(tv.said("no update module item!\n"));
}

TEST_F(Start, EndsSoonWithoutAnyModule)
{
    tv.switchOn();
    tv.startDaemon();
    expectEnd();
    EXPECT_THAT(tv.texts(),
                testing::IsSupersetOf({"firmwareItems empty", "Error: SymbolManager load fail!\n",
                                       "Error: service_initialize fail!\n", "no update module item!\n"}));
    EXPECT_FALSE(showedAState());
}

TEST_F(Start, GoesOnWithoutTheProductsDirectory)
{
    tv.installScripted("delta", Json::objectValue, Television::Controls::kSystem);
    tv.deliverFor("delta");
    tv.switchOn();
    fs::remove_all(tv.outside("/prd/usr/fwupdate/controls"));
    tv.startDaemon();
    tv.waitForState(5);
    EXPECT_THAT(tv.texts(), Contains(StartsWith("File System Exception: ")));
    EXPECT_EQ(tv.read(kListFile), "delta empdelta\n");
}

// ---- What the platform sees of the daemon ----

TEST_F(Start, OwnsItsBusNameAsLongAsItLives)
{
    installPending("alpha");
    startPending();
    EXPECT_TRUE(tv.said("start work (org.pellor.tv.tarnwick)!!"));
    EXPECT_TRUE(tv.ownsBusName(kBusName));
    tv.platform().powerOff(0);
    expectEnd();
    EXPECT_FALSE(tv.ownsBusName(kBusName));
}

TEST_F(Start, RunsAsAnOrdinaryUserThatCanGainNoPrivilege)
{
    installPending("alpha");
    startPending();
    const std::string status = tv.daemonStatus();
    EXPECT_THAT(status, testing::HasSubstr("Uid:\t901\t901\t901\t901"));
    EXPECT_THAT(status, testing::HasSubstr("CapEff:\t0000000000000000"));
    EXPECT_THAT(status, testing::HasSubstr("NoNewPrivs:\t1"));
}

TEST_F(Start, BeatsTheWatchdogEveryFiveSeconds)
{
    installPending("alpha");
    startPending();
    ASSERT_EQ(watchdog()["registered"].size(), 1U);
    EXPECT_EQ(watchdog()["registered"][0]["period_s"], 60);
    tv.setClockRate(10);
    tv.waitForPlatform(
        [](const Json::Value& set) { return set["watchdog"]["registered"][0]["beats"].asInt() >= 4; },
        "four beats of the watchdog");
    const Json::Value service = watchdog()["registered"][0];
    const int64_t milliseconds = service["last_beat_ms"].asInt64() - service["registered_ms"].asInt64();
    EXPECT_GE(milliseconds, service["beats"].asInt() * 5000);
    EXPECT_LE(milliseconds,
              service["beats"].asInt() * 5000 + 30'000); // a busy machine, at ten times the pace
    tv.setClockRate(1);
    tv.platform().powerOff(0);
    expectEnd();
    EXPECT_THAT(watchdog()["registered"], IsEmpty());
}

TEST_F(Start, ShowsItsStateEverySecond)
{
    tv.installScripted("alpha");
    tv.deliverFor("alpha", {"1.1", 5, "select"}); // waits for the package manager, and ticks
    tv.switchOn();
    tv.platform().setPackageManagerDelay(-1);
    fs::remove(tv.outside("/run/.pkgmgr_ready"));
    tv.startDaemon();
    tv.waitForText("6", 4);
    std::vector<int64_t> times;
    for (const Message& message : tv.messages()) {
        if (message.text != "6") {
            continue;
        }
        EXPECT_EQ(message.priority, 6);
        times.push_back(message.time);
    }
    const int64_t average = (times[3] - times[0]) / 3;
    EXPECT_GT(average, 700'000); // seconds are aligned with the machine's other timers
    EXPECT_LT(average, 3'000'000);
}

// ---- Packages ----

TEST_F(Start, RequestsEveryPackageOncePerBootInRegistryOrder)
{
    const std::vector<std::string> order =
        installInDirectoryOrder({"gamma", "alpha", "zeta", "beta", "EXT-box"});
    tv.installScripted("delta", Json::objectValue, Television::Controls::kSystem);
    std::vector<std::string> expected;
    for (const std::string& name : order) {
        if (name != "EXT-box") { // has no package
            expected.push_back("emp" + name);
        }
    }
    expected.emplace_back("empdelta"); // the system's modules follow the product's

    tv.switchOn();
    tv.startDaemon();
    expectEnd();
    EXPECT_EQ(requestedPackages(), expected);
    for (const std::string& package : expected) {
        EXPECT_EQ(tv.countOf("Request (" + package + ") emp download"), 1U);
    }
    EXPECT_TRUE(tv.said("Not Update Symbol [EXT-box]"));
    EXPECT_TRUE(tv.platform().snapshot()["flags"]["raised"].isMember(kDownloadFlag));

    tv.startDaemon(); // again in the same boot
    expectEnd();
    EXPECT_EQ(requestedPackages(), expected);
    EXPECT_EQ(tv.countOf("no update module item!\n"), 2U);
}

TEST_F(Start, RequestsPackagesAgainAtTheNextBoot)
{
    tv.installScripted("alpha");
    for (size_t boot = 1; boot <= 2; ++boot) {
        tv.switchOn();
        tv.startDaemon();
        expectEnd();
        EXPECT_THAT(requestedPackages(), ElementsAre("empalpha"));
        EXPECT_EQ(tv.countOf("Request (empalpha) emp download"), boot);
        tv.switchOff();
    }
}

TEST_F(Start, RequestsNoPackageWhenTheFlagIsRaisedAlready)
{
    tv.installScripted("alpha");
    tv.switchOn();
    tv.raiseFlag(kDownloadFlag);
    tv.startDaemon();
    expectEnd();
    EXPECT_THAT(requestedPackages(), IsEmpty());
}

TEST_F(Start, TellsOfARefusedPackageRequestAndGoesOn)
{
    installPending("alpha");
    tv.switchOn();
    tv.platform().setFault("ABM_DownloadAppBinary", -1);
    tv.startDaemon();
    tv.waitForState(5);
    EXPECT_TRUE(tv.said("Error: EMP ABM_DownloadAppBinary fail.(empalpha)"));
    EXPECT_TRUE(tv.platform().snapshot()["flags"]["raised"].isMember(kDownloadFlag));
}

TEST_F(Start, FindsAtTheNextStartWhatWasDelivered)
{
    tv.installScripted("alpha");
    tv.feed("empalpha", Television::packageFiles("alpha"));
    tv.switchOn();
    tv.platform().setPackageDelay(1000);
    tv.startDaemon();
    expectEnd(); // the package was only asked for
    EXPECT_TRUE(tv.said("Error: file no exist (" + Television::packagePath("empalpha") + ")"));
    tv.waitForPlatform(
        [](const Json::Value& set) { return set["packages"]["requests"][0]["state"] == "delivered"; },
        "the package is delivered");
    tv.startDaemon();
    tv.waitForState(5);
    EXPECT_EQ(tv.read(kListFile), "alpha empalpha\n");
}

// ---- The list of pending updates ----

TEST_F(Start, ListsWhatIsPendingInRegistryOrder)
{
    const std::vector<std::string> order = installInDirectoryOrder({"gamma", "alpha", "beta"});
    tv.write("/var/lib/hardware/beta.json", scriptOf("verdict", 0).toStyledString());
    std::string expected;
    for (const std::string& name : order) {
        tv.deliverFor(name);
        if (name != "beta") {
            expected += name + " emp" + name + "\n";
        }
    }
    startPending();
    EXPECT_TRUE(tv.said("need update item, wait ui or bg fw update\n"));
    EXPECT_TRUE(tv.said("Need Update [alpha][empalpha]"));
    EXPECT_FALSE(tv.said("Need Update [beta][empbeta]"));
    EXPECT_EQ(tv.read(kListFile), expected);
    tv.platform().powerOff(0);
    expectEnd();
}

TEST_F(Start, ListsAModuleWhoseImageLiesInTheSystem)
{
    tv.installScripted("alpha");
    for (const auto& [name, content] : Television::packageFiles("alpha", {"1.1", 5, "select"})) {
        tv.write("/lib/firmware/ext/alpha/" + name, content);
    }
    tv.switchOn();
    tv.startDaemon();
    tv.waitForState(5);
    EXPECT_EQ(tv.read(kListFile), "alpha empalpha\n");
}

TEST_F(Start, LeavesASymbolicLinkInTheListsPlaceAlone)
{
    installPending("alpha");
    tv.switchOn();
    tv.write("/var/tmp/precious", "precious\n");
    fs::create_symlink("/var/tmp/precious", tv.outside(kListFile));
    tv.startDaemon();
    EXPECT_EQ(tv.waitForDaemon(), 0); // nothing was checked, so nothing is pending
    EXPECT_THAT(tv.texts(),
                testing::IsSupersetOf({"symbolic link is detected\n", "fail check_race_condition\n",
                                       "need update item, wait ui or bg fw update\n",
                                       "alpha Firmware Expected Time Check Done"}));
    EXPECT_EQ(tv.read("/var/tmp/precious"), "precious\n");
    EXPECT_EQ(fs::read_symlink(tv.outside(kListFile)), "/var/tmp/precious");
}

// ---- A start that fails: the daemon goes on without its timers ----

TEST_F(Start, GoesOnWithoutTimersWhenTheWatchdogRefuses)
{
    installPending("alpha");
    tv.switchOn();
    tv.platform().setFault("hangwatch_register_watchdog_service", -1);
    tv.startDaemon();
    tv.waitForText("need update item, wait ui or bg fw update\n");
    EXPECT_THAT(tv.texts(),
                testing::IsSupersetOf({"Error: [fwupdate-daemon] hangwatch_register_watchdog_service fail!\n",
                                       "Error: service_initialize fail!\n"}));
    tv.jump(10); // ticks and beats would be due at once
    tv.waitForPlatform([](const Json::Value& set) { return !set["subscribers"].empty(); },
                       "the daemon listens");
    tv.platform().powerOff(0);
    expectEnd();
    EXPECT_FALSE(showedAState());
    EXPECT_THAT(watchdog()["registered"], IsEmpty());
}

TEST_F(Start, UpdatesNothingWhenTheSemaphoreCannotBeOpened)
{
    installPending("alpha");
    tv.switchOn();
    EXPECT_EQ(tv.semaphore("show", true).text, "1\n"); // now root's, and closed to the daemon
    tv.startDaemon();
    tv.waitForText("need update item, wait ui or bg fw update\n");
    EXPECT_THAT(tv.texts(), testing::IsSupersetOf(
                                {"Parent\t: [sem_open] Failed\n", "Error: service_initialize fail!\n"}));
    goToStandby();
    expectEnd();
    EXPECT_FALSE(showedAState());
    EXPECT_FALSE(wasWritten("alpha"));
    EXPECT_TRUE(wasAsked("alpha allUpdateDone()"));
}

struct Subscription {
    const char* call;
    const char* message;
};

class FailedSubscription : public Start, public testing::WithParamInterface<Subscription>
{
};

TEST_P(FailedSubscription, IsToldAndTheOthersAreMade)
{
    installPending("alpha");
    tv.switchOn();
    tv.platform().setFault(GetParam().call, -1);
    tv.startDaemon();
    tv.waitForState(5);
    EXPECT_EQ(tv.countOf(GetParam().message), 1U);
    size_t failures = 0;
    for (const std::string& text : tv.texts()) {
        failures += testing::Matches(testing::HasSubstr("() failed"))(text) ||
                    testing::Matches(testing::HasSubstr("(SMSRC_STATUS) failed"))(text);
    }
    EXPECT_EQ(failures, 1U);

    const std::string missing = GetParam().call;
    if (missing != "pralis_notify_key_changed") {
        tv.platform().setSetting(kMirroringKey, 2);
        tv.waitForText("[" + std::string(kMirroringKey) + "] pralis get value : [2]");
    }
    if (missing == "pwrctl_subscribe_poweroff_event") {
        tv.setPower(kStandby); // in the first ten minutes
    } else {
        tv.platform().powerOff(0);
    }
    expectEnd();
}

INSTANTIATE_TEST_SUITE_P(Start, FailedSubscription,
                         testing::Values(Subscription{"pwrctl_subscribe_state_changed_event",
                                                      "Error: pwrctl_subscribe_state_changed_event() failed"},
                                         Subscription{"pwrctl_subscribe_poweroff_event",
                                                      "Error: pwrctl_subscribe_poweroff_event() failed"},
                                         Subscription{
                                             "pralis_notify_key_changed",
                                             "Error: pralis_notify_key_changed(SMSRC_STATUS) failed"}),
                         [](const auto& subscription) { return std::string(subscription.param.call); });

TEST_F(Start, FindsWhatIsPendingWithoutThePlatformsServices)
{
    installPending("alpha");
    tv.switchOn();
    tv.killService("platformd");
    tv.startDaemon();
    tv.waitForText("need update item, wait ui or bg fw update\n");
    EXPECT_THAT(tv.texts(),
                testing::IsSupersetOf({"Unable to read SW version from sysprop",
                                       "Error: [fwupdate-daemon] hangwatch_register_watchdog_service fail!\n",
                                       "Error: EMP ABM_DownloadAppBinary fail.(empalpha)"}));
    tv.waitForText("Error: pralis_notify_key_changed(SMSRC_STATUS) failed");
    EXPECT_EQ(tv.read(kListFile), "alpha empalpha\n");
    EXPECT_TRUE(tv.daemonRuns());
}

// ---- The set's software version ----

TEST_F(Start, ReadsTheModelFromTheSoftwareVersion)
{
    installPending("alpha");
    tv.switchOn();
    tv.platform().setProperty(kSoftwareVersion, "ABC-DEF-GHI");
    tv.startDaemon();
    tv.waitForState(5);
    EXPECT_TRUE(tv.said("SWModel : ABC-DEF"));
    EXPECT_FALSE(tv.said("Error: getSwVersion fail"));
}

TEST_F(Start, GoesOnWithASoftwareVersionWithoutDash)
{
    installPending("alpha");
    tv.switchOn();
    tv.platform().setProperty(kSoftwareVersion, "NODASH");
    tv.startDaemon();
    tv.waitForState(5);
    EXPECT_TRUE(tv.said("getSWVersionString: Wrong string format - lack of dash: NODASH"));
    EXPECT_TRUE(tv.said("Error: getSwVersion fail"));
}

TEST_F(Start, GoesOnWithoutASoftwareVersion)
{
    installPending("alpha");
    tv.switchOn();
    tv.platform().setFault("sysprop_get_value_string", -1);
    tv.startDaemon();
    tv.waitForState(5);
    EXPECT_TRUE(tv.said("Unable to read SW version from sysprop"));
    EXPECT_TRUE(tv.said("Error: getSwVersion fail"));
}

} // namespace
} // namespace service
