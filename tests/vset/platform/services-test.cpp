// Launches, packages, flags, watchdog, system information, and services that are not there.

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gio/gio.h>
#include <set>
#include <signal.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "appbinary_manager.h"
#include "applaunch.h"
#include "flagpost.h"
#include "hangwatch.h"
#include "pralis.h"
#include "ps_mount.h"
#include "pwrctl.h"
#include "sysprop.h"
#include "tests/vset/platform/platform-test.h"

using testing::ElementsAre;
using testing::Gt;
using testing::Lt;

namespace
{

class Services : public PlatformTest
{
protected:
    static constexpr const char* kFeed = "/srv/feed/";
    static constexpr const char* kPlace = "/opt/usr/apps/appbinarymanager/";

    static void write(const std::string& path, const std::string& content) { std::ofstream(path) << content; }

    static std::string read(const std::string& path)
    {
        std::ostringstream content;
        content << std::ifstream(path).rdbuf();
        return content.str();
    }

    // The process that answers as the platform.
    static pid_t platformProcess()
    {
        GDBusConnection* const bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
        GVariant* const reply = g_dbus_connection_call_sync(
            bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "GetConnectionUnixProcessID", g_variant_new("(s)", "org.pellor.platform"), G_VARIANT_TYPE("(u)"),
            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        guint32 process = 0;
        g_variant_get(reply, "(u)", &process);
        g_variant_unref(reply);
        g_object_unref(bus);
        return static_cast<pid_t>(process);
    }

    // The platform crashes, and `meanwhile` happens before it is started again as a television would.
    void crashPlatform(const std::function<void()>& meanwhile)
    {
        const pid_t before = platformProcess();
        const std::string program = std::filesystem::read_symlink("/proc/" + std::to_string(before) + "/exe");
        ASSERT_EQ(kill(before, SIGKILL), 0);
        ASSERT_TRUE(pumpUntil([&] { return pwrctl_get_state() < 0; }));
        meanwhile();
        restarted_ = fork();
        if (restarted_ == 0) {
            execl(program.c_str(), "platformd", "--no-power-cycle", nullptr);
            _exit(127);
        }
        ASSERT_TRUE(pumpUntil([] { return pwrctl_get_state() >= 0; }));
    }

    ~Services() override
    {
        if (restarted_ > 0) {
            kill(restarted_, SIGKILL);
            waitpid(restarted_, nullptr, 0);
        }
    }

private:
    pid_t restarted_ = -1;
};

struct Ends {
    std::vector<std::string> packages;
    std::vector<int> states;
};

void noteEnd(const std::string& package, int status, void* userData)
{
    static_cast<Ends*>(userData)->packages.push_back(package);
    static_cast<Ends*>(userData)->states.push_back(status);
}

void noteReply(applaunch_h, int result, void* userData)
{
    static_cast<std::vector<int>*>(userData)->push_back(result);
}

} // namespace

// ---- Application launch ----

TEST_F(Services, ALaunchIsRecordedWithItsExtrasInOrder)
{
    applaunch_h launch = nullptr;
    ASSERT_EQ(applaunch_create(&launch), 0);
    EXPECT_EQ(applaunch_add_extra_data(launch, "updatetype", "general"), 0);
    EXPECT_EQ(applaunch_add_extra_data(launch, "timeinfo", "-1"), 0);
    EXPECT_EQ(applaunch_add_extra_data(launch, "uitype", "force"), 0);
    EXPECT_THAT(applaunch_send_launch_request(launch, nullptr, nullptr), Lt(0)); // nothing to launch yet
    EXPECT_EQ(applaunch_set_app_id(launch, "com.olvessa.tv.firmware.update"), 0);
    EXPECT_EQ(applaunch_send_launch_request(launch, nullptr, nullptr), 0);
    EXPECT_EQ(applaunch_destroy(launch), 0);

    const Json::Value record = set.snapshot()["launches"][0];
    EXPECT_EQ(record["application"].asString(), "com.olvessa.tv.firmware.update");
    EXPECT_TRUE(record["sent"].asBool());
    std::vector<std::string> extras;
    for (const Json::Value& extra : record["extras"]) {
        extras.push_back(extra["key"].asString() + "=" + extra["value"].asString());
    }
    EXPECT_THAT(extras, ElementsAre("updatetype=general", "timeinfo=-1", "uitype=force"));
}

TEST_F(Services, ALaunchThatCouldNotBeMadeFailsInEveryCall)
{
    applaunch_h launch = reinterpret_cast<applaunch_h>(8);
    set.setFault("applaunch_create", -1, 1);
    EXPECT_EQ(applaunch_create(&launch), -1);
    EXPECT_EQ(launch, nullptr);
    EXPECT_THAT(applaunch_add_extra_data(launch, "key", "value"), Lt(0));
    EXPECT_THAT(applaunch_set_app_id(launch, "application"), Lt(0));
    EXPECT_THAT(applaunch_send_launch_request(launch, nullptr, nullptr), Lt(0));
    EXPECT_THAT(applaunch_destroy(launch), Lt(0));
    EXPECT_THAT(applaunch_create(nullptr), Lt(0));
}

TEST_F(Services, NineLaunchesFailAndTheTenthIsSent)
{
    applaunch_h launch = nullptr;
    ASSERT_EQ(applaunch_create(&launch), 0);
    ASSERT_EQ(applaunch_set_app_id(launch, "application"), 0);
    set.setFault("applaunch_send_launch_request", -1, 9);
    for (int attempt = 1; attempt <= 9; ++attempt) {
        EXPECT_EQ(applaunch_send_launch_request(launch, nullptr, nullptr), -1) << attempt;
    }
    EXPECT_FALSE(set.snapshot()["launches"][0]["sent"].asBool());
    EXPECT_EQ(applaunch_send_launch_request(launch, nullptr, nullptr), 0);
    EXPECT_EQ(applaunch_destroy(launch), 0);
}

TEST_F(Services, TheReplyReachesTheOwnerUnlessItDestroyedTheRequest)
{
    std::vector<int> replies;
    applaunch_h launches[2] = {};
    for (applaunch_h& launch : launches) {
        ASSERT_EQ(applaunch_create(&launch), 0);
        ASSERT_EQ(applaunch_set_app_id(launch, "application"), 0);
        ASSERT_EQ(applaunch_send_launch_request(launch, noteReply, &replies), 0);
    }
    ASSERT_EQ(applaunch_destroy(launches[1]), 0);
    set.replyLaunch(1, 42);
    set.replyLaunch(2, 43);
    EXPECT_TRUE(pumpUntil([&] { return !replies.empty(); }));
    pumpAll();
    EXPECT_THAT(replies, ElementsAre(42));
    EXPECT_THROW(set.replyLaunch(1, 42), vset::ControlError);
    EXPECT_EQ(applaunch_destroy(launches[0]), 0);
}

// ---- Packages ----

TEST_F(Services, APackageComesAfterItsDelay)
{
    Ends ends;
    write(std::string(kFeed) + "empTuner.img", "image");
    set.setPackageDelay(400);
    ASSERT_TRUE(appbinaryManager::ABM_DownloadAppBinary(noteEnd, &ends, "empTuner"));
    EXPECT_EQ(access((std::string(kPlace) + "empTuner.img").c_str(), F_OK), -1);
    EXPECT_TRUE(pumpUntil([&] { return !ends.packages.empty(); }));
    EXPECT_THAT(ends.packages, ElementsAre("empTuner"));
    EXPECT_THAT(ends.states, ElementsAre(0));
    EXPECT_EQ(read(std::string(kPlace) + "empTuner.img"), "image");
    EXPECT_EQ(set.snapshot()["packages"]["requests"][0]["state"].asString(), "delivered");
}

TEST_F(Services, WhoeverLooksSeesTheOldImageOrTheNewOneWhole)
{
    constexpr size_t kSize = 8 << 20;
    const std::string place = std::string(kPlace) + "empBig.img";
    write(place, std::string(kSize, 'o'));
    write(std::string(kFeed) + "empBig.img", std::string(kSize, 'n'));
    set.setPackageDelay(0);
    std::atomic<bool> isOver{false};
    std::atomic<int> torn{0};
    std::thread reader([&] {
        while (!isOver) {
            const std::string seen = read(place);
            const bool isWhole = seen.size() == kSize && seen.find_first_not_of(seen[0]) == std::string::npos;
            torn += isWhole ? 0 : 1;
        }
    });
    for (int round = 0; round < 3; ++round) {
        EXPECT_TRUE(appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, "empBig"));
    }
    waitFor([](const Json::Value& now) { return now["packages"]["requests"][2]["state"] == "delivered"; });
    isOver = true;
    reader.join();
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(read(place), std::string(kSize, 'n'));
}

TEST_F(Services, AnUnknownPackageIsTakenAndNeverComes)
{
    Ends ends;
    set.setPackageDelay(0);
    ASSERT_TRUE(appbinaryManager::ABM_DownloadAppBinary(noteEnd, &ends, "empNobody"));
    EXPECT_TRUE(pumpUntil([&] { return !ends.states.empty(); }));
    EXPECT_THAT(ends.states, ElementsAre(Lt(0)));
    EXPECT_EQ(set.snapshot()["packages"]["requests"][0]["state"].asString(), "unknown");
    EXPECT_EQ(access((std::string(kPlace) + "empNobody.img").c_str(), F_OK), -1);
}

TEST_F(Services, APackageNameLeadsNowhereElse)
{
    write("/srv/secret.img", "secret");
    set.setPackageDelay(0);
    for (const char* name : {"../secret", "", "/etc/passwd", "."}) {
        EXPECT_TRUE(appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, name)) << name;
    }
    const Json::Value requests = waitFor([](const Json::Value& now) {
        return now["packages"]["requests"][3]["state"] == "unknown";
    })["packages"]["requests"];
    for (const Json::Value& request : requests) {
        EXPECT_EQ(request["state"].asString(), "unknown");
    }
    EXPECT_EQ(access("/opt/usr/apps/secret.img", F_OK), -1);
}

TEST_F(Services, ARefusedPackageRequestIsFalse)
{
    set.setFault("ABM_DownloadAppBinary", -1, 1, "empTuner");
    EXPECT_FALSE(appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, "empTuner"));
    EXPECT_TRUE(set.snapshot()["packages"]["requests"].empty());
}

// ---- Flags, watchdog, system information ----

TEST_F(Services, AFlagIsRaisedUntilItIsReset)
{
    EXPECT_THAT(FlagpostIsDone("/tmp/.fw_download_ready"), Lt(1));
    EXPECT_EQ(FlagpostEventDone("/tmp/.fw_download_ready"), 0);
    EXPECT_THAT(FlagpostIsDone("/tmp/.fw_download_ready"), Gt(0));
    EXPECT_EQ(FlagpostResetEvent("/tmp/.fw_download_ready"), 0);
    EXPECT_THAT(FlagpostIsDone("/tmp/.fw_download_ready"), Lt(1));
    EXPECT_EQ(set.snapshot()["flags"]["history"].size(), 2U);
    EXPECT_THAT(FlagpostEventDone(nullptr), Lt(0));
}

TEST_F(Services, AMissedBeatIsRecordedAndABeatIsNot)
{
    ASSERT_EQ(hangwatch_register_watchdog_service(1), 0);
    ASSERT_EQ(hangwatch_watchdog_notify(), 0);
    EXPECT_EQ(set.snapshot()["watchdog"]["registered"][0]["beats"].asInt(), 1);
    const Json::Value watchdog = waitFor([](const Json::Value& now) {
        const Json::Value& history = now["watchdog"]["history"];
        return history[history.size() - 1]["step"] == "missed";
    })["watchdog"];
    EXPECT_EQ(watchdog["history"][0]["step"].asString(), "registered");
    EXPECT_EQ(hangwatch_unregister_watchdog_service(), 0);
    EXPECT_THAT(hangwatch_watchdog_notify(), Lt(0));
    EXPECT_THAT(hangwatch_unregister_watchdog_service(), Lt(0));
}

TEST_F(Services, AWatchdogWithoutPeriodIsRefused)
{
    EXPECT_THAT(hangwatch_register_watchdog_service(0), Lt(0));
    EXPECT_THAT(hangwatch_register_watchdog_service(-60), Lt(0));
}

TEST_F(Services, SystemInformationIsTheCallersToFree)
{
    char* value = nullptr;
    ASSERT_EQ(sysprop_get_value_string(128, &value), 0);
    EXPECT_STREQ(value, "VSET-2026-1.0");
    free(value);
    set.setProperty(128, "VSET-2026-1.1");
    ASSERT_EQ(sysprop_get_value_string(128, &value), 0);
    EXPECT_STREQ(value, "VSET-2026-1.1");
    free(value);
    value = nullptr;
    EXPECT_THAT(sysprop_get_value_string(129, &value), Lt(0));
    EXPECT_EQ(value, nullptr);
}

// ---- Services that are not there ----

TEST_F(Services, WithoutABusEveryCallFailsAndNoneEndsTheProcess)
{
    Child child("call-in-vain", {"DBUS_SYSTEM_BUS_ADDRESS=unix:path=/tmp/no-such-bus"});
    EXPECT_EQ(child.readLine(), "done");
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(Services, WithoutTheServiceEveryCallFails)
{
    ASSERT_EQ(
        system("dbus-daemon --session --address=unix:path=/tmp/bare-bus --fork --print-pid > /tmp/bare-pid"),
        0);
    Child child("call-in-vain", {"DBUS_SYSTEM_BUS_ADDRESS=unix:path=/tmp/bare-bus"});
    EXPECT_EQ(child.readLine(), "done");
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(Services, TheEndOfTheBusEndsNoProcess)
{
    ASSERT_EQ(
        system("dbus-daemon --session --address=unix:path=/tmp/bare-bus --fork --print-pid > /tmp/bare-pid"),
        0);
    Child child("call-again", {"DBUS_SYSTEM_BUS_ADDRESS=unix:path=/tmp/bare-bus"});
    ASSERT_EQ(child.readLine(), "-1");
    ASSERT_EQ(kill(static_cast<pid_t>(std::stoi(read("/tmp/bare-pid"))), SIGKILL), 0);
    for (int line = 0; line < 10; ++line) {
        ASSERT_EQ(child.readLine(), "-1"); // an ended process would say nothing
    }
}

TEST_F(Services, WhatIsSubscribedIsSubscribedAnewWhenAPlatformThatCrashedIsBack)
{
    std::vector<int> heard;
    const auto onKey = [](keynode* node, void* data) {
        static_cast<std::vector<int>*>(data)->push_back(pralis_keynode_get_int(node));
    };
    const auto onState = [](pwrctl_state_info*, void*) { return 0; };
    ASSERT_EQ(pralis_notify_key_changed("memory/wanted", onKey, &heard), 0);
    ASSERT_EQ(pralis_notify_key_changed("memory/given-up", onKey, &heard), 0);
    ASSERT_EQ(pwrctl_subscribe_state_changed_event(onState, nullptr), 0);

    crashPlatform([&] {
        EXPECT_THAT(pralis_set_int("memory/wanted", 1), Lt(0));
        EXPECT_THAT(pralis_notify_key_changed("memory/in-vain", onKey, &heard), Lt(0));
        EXPECT_THAT(pwrctl_lock_state(2, 1000), Lt(0));
        EXPECT_THAT(FlagpostIsDone("/tmp/.flag"), Lt(0));
        EXPECT_FALSE(appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, "empA"));
        EXPECT_THAT(pralis_ignore_key_changed("memory/given-up", onKey), Lt(0)); // and yet it is ended
    });

    const auto events = [this] {
        std::multiset<std::string> names;
        const Json::Value snapshot = set.snapshot();
        for (const Json::Value& one : snapshot["subscribers"]) {
            for (int count = one["count"].asInt(); count > 0; --count) {
                names.insert(one["event"].asString() + " " + one["argument"].asString());
            }
        }
        return names;
    };
    ASSERT_TRUE(pumpUntil([&] { return events().size() >= 2; }));
    pumpAll();
    EXPECT_THAT(events(), ElementsAre("key memory/wanted", "state "));
    EXPECT_EQ(pralis_set_int("memory/given-up", 5), 0);
    EXPECT_EQ(pralis_set_int("memory/wanted", 7), 0);
    ASSERT_TRUE(pumpUntil([&] { return !heard.empty(); }));
    pumpAll();
    EXPECT_THAT(heard, ElementsAre(7));
    EXPECT_EQ(pralis_ignore_key_changed("memory/wanted", onKey), 0);
    EXPECT_EQ(pwrctl_unsubscribe_state_changed_event(onState), 0);
    EXPECT_THAT(events(), testing::IsEmpty());
}

TEST_F(Services, AServiceThatDoesNotAnswerIsGivenUpAfterFiveSeconds)
{
    const pid_t platform = platformProcess();
    ASSERT_EQ(kill(platform, SIGSTOP), 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THAT(FlagpostEventDone("/tmp/.flag"), Lt(0));
    const auto waited = std::chrono::steady_clock::now() - start;
    ASSERT_EQ(kill(platform, SIGCONT), 0);
    EXPECT_THAT(waited, Gt(std::chrono::seconds(4)));
    EXPECT_THAT(waited, Lt(std::chrono::seconds(15)));
    EXPECT_EQ(FlagpostEventDone("/tmp/.flag"), 0);
}

TEST_F(Services, AMountCallFailsAsOrdered)
{
    int result = 4711;
    const std::string command = "-o ro,loop,nodev,nosuid /a /b";
    set.setFault("PS_Mount", -3, 1);
    EXPECT_EQ(PS_Mount(command.c_str(), static_cast<int>(command.size()), 0, &result), -3);
    EXPECT_NE(result, 0);
    EXPECT_THAT(PS_Mount(nullptr, 5, 0, &result), Lt(0));
    EXPECT_THAT(PS_Mount(command.c_str(), -1, 0, &result), Lt(0));
}
