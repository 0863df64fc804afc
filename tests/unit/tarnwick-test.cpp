// The process itself on a platform and a bus of the test's own: what happens around it, seen from its end.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <filesystem>
#include <functional>
#include <gio/gio.h>
#include <iostream>
#include <new>
#include <optional>
#include <pthread.h>
#include <semaphore.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "src/src/fw-update-UIA.h"
#include "tests/support/manager-test.h"

int tarnwickMain(); // the daemon's entry, which has another name here

namespace
{

int refusedThreads = 0; // of the next ones that the daemon asks for

// What the next look of this thread at the monotonic clock shows, in nanoseconds; below zero it fails.
thread_local std::optional<int64_t> nextLook;

bool isLoopRefused = false;          // the next one that is asked for
std::atomic<bool> isLoopLeft{false}; // the main thread's; the bus has one as well

struct Timer {
    guint id;
    guint milliseconds;
};
std::vector<Timer> timers; // that the daemon has started

guint known(guint id, guint milliseconds)
{
    timers.push_back({id, milliseconds});
    return id;
}

template <typename Function>
Function* real(Function*, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

// GLib's own threads come with attributes, and are not refused: it ends the process when it gets none.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                              void* argument) noexcept
{
    static auto* const create = real(&pthread_create, "pthread_create");
    if (attributes == nullptr && refusedThreads > 0) {
        --refusedThreads;
        return EAGAIN;
    }
    return create(thread, attributes, body, argument);
}

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    static auto* const look = real(&clock_gettime, "clock_gettime");
    if (clock != CLOCK_MONOTONIC || !nextLook) {
        return look(clock, now);
    }
    const int64_t shown = *nextLook;
    nextLook.reset();
    if (shown < 0) {
        errno = EINVAL;
        return -1;
    }
    *now = {shown / 1'000'000'000, static_cast<long>(shown % 1'000'000'000)};
    return 0;
}

extern "C" GMainLoop* g_main_loop_new(GMainContext* context, gboolean isRunning)
{
    static auto* const make = real(&g_main_loop_new, "g_main_loop_new");
    if (std::exchange(isLoopRefused, false)) {
        throw std::bad_alloc();
    }
    return make(context, isRunning);
}

extern "C" void g_main_loop_run(GMainLoop* loop)
{
    static auto* const run = real(&g_main_loop_run, "g_main_loop_run");
    run(loop);
    isLoopLeft = isLoopLeft || gettid() == getpid();
}

extern "C" guint g_timeout_add(guint milliseconds, GSourceFunc function, gpointer data)
{
    static auto* const start = real(&g_timeout_add, "g_timeout_add");
    return known(start(milliseconds, function, data), milliseconds);
}

extern "C" guint g_timeout_add_seconds(guint seconds, GSourceFunc function, gpointer data)
{
    static auto* const start = real(&g_timeout_add_seconds, "g_timeout_add_seconds");
    return known(start(seconds, function, data), 1000 * seconds);
}

namespace
{

using testing::ExitedWithCode;

// A set without modules: the boot worker finds nothing to do and ends the process with 0.
class Tarnwick : public SetTest
{
protected:
    void SetUp() override
    {
        SetTest::SetUp();
        refusedThreads = 0;
        sem_unlink("/SEM_UPDATE_CONTROL"); // an update that was cut has left it taken
        bus = g_test_dbus_new(G_TEST_DBUS_NONE);
        g_test_dbus_up(bus);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", g_test_dbus_get_bus_address(bus), 1);
    }
    void TearDown() override
    {
        g_test_dbus_stop(bus);
        g_object_unref(bus);
        SetTest::TearDown();
    }

    // In the daemon: waits until it owns its name, and takes the bus away.
    void endBus()
    {
        GDBusConnection* const shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
        while (!isNameOwned(shared)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        g_test_dbus_stop(bus);
        while (g_dbus_connection_is_closed(shared) == FALSE) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(500)); // the main loop hears of it, too
    }

    GTestDBus* bus = nullptr;

private:
    static bool isNameOwned(GDBusConnection* connection)
    {
        GVariant* const reply =
            g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                                        "NameHasOwner", g_variant_new("(s)", "org.pellor.tv.tarnwick"),
                                        nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        gboolean isOwned = FALSE;
        g_variant_get(reply, "(b)", &isOwned);
        g_variant_unref(reply);
        return isOwned == TRUE;
    }
};

TEST_F(Tarnwick, OutlivesTheBus)
{
    bool isBusGone = false;
    platform.onCall("FlagpostIsDone", [&] {
        if (!isBusGone) {
            endBus();
            isBusGone = true;
        }
    });
    EXPECT_EXIT(tarnwickMain(), ExitedWithCode(0), "");
}

// ---- What nobody catches ends the process as everything else does ----

void runOutOfMemory()
{
    throw std::bad_alloc();
}

TEST_F(Tarnwick, EndsInOrderAfterAnExceptionOnItsWorker)
{
    platform.onCall("FlagpostIsDone", runOutOfMemory);
    EXPECT_EXIT(tarnwickMain(), ExitedWithCode(0), "");
}

TEST_F(Tarnwick, EndsInOrderAfterAnExceptionAtItsStart)
{
    installControl("tuner").answers.onCall = [](const std::string&) { runOutOfMemory(); };
    EXPECT_EXIT(tarnwickMain(), ExitedWithCode(0), "");
}

TEST_F(Tarnwick, EndsInOrderAfterAnExceptionWhenTheSetIsSwitchedOff)
{
    installControl("tuner").answers.onCall = [](const std::string& function) {
        if (function == "allUpdateDone") {
            runOutOfMemory();
        }
    };
    platform.onCall("FlagpostIsDone", [] { std::this_thread::sleep_for(std::chrono::minutes(1)); });
    platform.onCall("pralis_notify_key_changed", [&] { platform.powerOff(0); }); // the last subscription
    EXPECT_EXIT(tarnwickMain(), ExitedWithCode(0), "");
}

// ---- A whole life ----

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kStart = 1000 * kSecond; // when the service has started, by its clock
constexpr int64_t kGrace = 600 * kSecond;
constexpr const char* kMirroringKey = "memory/menu/network/screenmirroring/smsrc_status";
constexpr const char* kFactoryMarker = "/tmp/FACTORY_PRODCUTION";

// What the process has said and done, one line each, as its last words.
void tellAll()
{
    for (const LogLine& line : fakePlatform().log()) {
        std::cerr << line.priority << ": " << line.text << '\n';
    }
    for (const std::string& call : fakePlatform().calls()) {
        std::cerr << call << '\n';
    }
    std::cerr << (testing::Test::HasFailure() ? "an expectation failed\n" : "");
    for (const Timer& timer : timers) {
        const bool isLeft = g_main_context_find_source_by_id(nullptr, timer.id) != nullptr;
        std::cerr << "timer of " << timer.milliseconds << (isLeft ? " ms, left\n" : " ms\n");
    }
    std::cerr << "state " << FWUpdateUIA::getInstance()->FWSVC_get_state() << '\n';
    std::cerr << (exists("/tmp/fwupdate-off-list.txt") ? "the list is left\n" : "no list\n");
}

// Lives as a set's daemon does, while the test plays the set on a thread of its own.
class TarnwickLife : public Tarnwick
{
protected:
    void SetUp() override
    {
        Tarnwick::SetUp();
        remove(kFactoryMarker);
    }

    // A module with a package for the unattended update.
    ControlRecorder& installPending()
    {
        ControlRecorder& library = installControl("tuner");
        const std::string tree = makePackage("empTuner").tree;
        writeFile(tree + "/Tuner.bin", "");
        writeFile(tree + "/info.json", R"({"version": "2.0", "expected_time": 10})");
        library.answers.onCall = [](const std::string& function) {
            if (function == "doUpdate") {
                untilOthersSleep();
            }
        };
        return library;
    }

    // Starts at `started`. `play` runs when the service is up; what it leaves running is given up as a
    // failure.
    void live(const std::function<void()>& play)
    {
        platform.onLog([this](const std::string& text) {
            if (text == "service initialize") {
                nextLook = started;
            }
        });
        std::thread([&] {
            if (!eventually([&] { return isUp(); })) {
                std::cerr << "it did not come up\n";
                _exit(3);
            }
            play();
            std::this_thread::sleep_for(std::chrono::seconds(20));
            tellAll();
            std::cerr << "it did not end\n";
            _exit(4);
        }).detach();
        liveAlone();
    }

    // Nobody plays the set.
    static void liveAlone()
    {
        timers.clear();
        isLoopLeft = false;
        at_quick_exit(tellAll);
        tarnwickMain();
    }

    // Its boot worker has looked for updates, and the main loop listens.
    bool isUp() const
    {
        return isLogged("need update item, wait ui or bg fw update\n") &&
               (platform.isSubscribed(kMirroringKey) ||
                isLogged("Error: pralis_notify_key_changed(SMSRC_STATUS) failed"));
    }

    bool isLogged(const std::string& text) const
    {
        for (const LogRecord& record : platform.logRecords()) {
            if (record.text == text) {
                return true;
            }
        }
        return false;
    }

    int64_t started = kStart;

    // The power changes, so many nanoseconds after kStart.
    std::vector<int> changePower(int previous, int current, int64_t after)
    {
        nextLook = kStart + after;
        std::vector<int> results = platform.changePowerState(previous, current);
        nextLook.reset();
        return results;
    }
};

TEST_F(TarnwickLife, UpdatesAtStandbyAndEnds)
{
    installPending();
    EXPECT_EXIT(live([&] { changePower(0, 2, kGrace); }), ExitedWithCode(0),
                AllOf(HasSubstr("6: prev_state [0] cur_state[2] try fw update\n"),
                      HasSubstr("6: ========== [ Tuner update succeeded ] ==========\n"),
                      HasSubstr("6: service finalize\n"), HasSubstr("no list\n"),
                      Not(HasSubstr("seconds since the service started"))));
}

// Everything in its order, from the name on the bus to the end.
TEST_F(TarnwickLife, TellsAndAsksTheSameAtEveryStartAndEnd)
{
    installPending();
    EXPECT_EXIT(live([&] { platform.powerOff(0); }), ExitedWithCode(0),
                AllOf(HasSubstr("3: start work (org.pellor.tv.tarnwick)!!\n6: service initialize\n"),
                      HasSubstr("4: g_main loop running in main thread!\n"),
                      HasSubstr("hangwatch_register_watchdog_service(60)\n"),
                      HasSubstr("FlagpostIsDone(\"/tmp/.fw_download_ready\")\n"),
                      HasSubstr("FlagpostEventDone(\"/tmp/.fw_download_ready\")\n"),
                      HasSubstr("FlagpostResetEvent(\"/tmp/.ignore_resume\")\n"
                                "pwrctl_unsubscribe_state_changed_event()\n"
                                "pwrctl_unsubscribe_poweroff_event()\n"
                                "pwrctl_unlock_state(2)\n"
                                "hangwatch_unregister_watchdog_service()\n"
                                "timer of 5000 ms\ntimer of 1000 ms\nstate 21\nno list\n"),
                      Not(HasSubstr("Error: service_initialize fail!")),
                      Not(HasSubstr("subscribe_state_changed_event() failed"))));
}

TEST_F(TarnwickLife, ItsStateIsThatOfItsStartAndOfItsEnd)
{
    installPending();
    for (const char* call : {"hangwatch_register_watchdog_service", "FlagpostIsDone", "FlagpostResetEvent"}) {
        platform.onCall(call, [call] {
            std::cerr << "at " << call << " " << FWUpdateUIA::getInstance()->FWSVC_get_state() << '\n';
        });
    }
    EXPECT_EXIT(live([&] { platform.powerOff(0); }), ExitedWithCode(0),
                AllOf(HasSubstr("at hangwatch_register_watchdog_service 0\n"),
                      HasSubstr("at FlagpostIsDone 1\n"), HasSubstr("at FlagpostResetEvent 20\n"),
                      HasSubstr("state 21\n")));
}

// ---- Power and mirroring ----

// How the power changes in the first ten minutes, and whether the modules hear of it.
struct Change {
    int previous;
    int current;
    bool isOff;
};
class TarnwickGrace : public TarnwickLife, public testing::WithParamInterface<Change>
{
};
INSTANTIATE_TEST_SUITE_P(Power, TarnwickGrace,
                         testing::Values(Change{0, 1, false}, Change{0, 2, true}, Change{0, 3, true},
                                         Change{0, 4, true}, Change{2, 0, false}, Change{0, 5, false}));

TEST_P(TarnwickGrace, AnyChangeEndsTheServiceInItsFirstTenMinutes)
{
    installPending();
    const auto [previous, current, isOff] = GetParam();
    const std::string told = "6: call allupdatedone only when power is off cur_power_state[" +
                             std::to_string(current) + "]\n6: Try allDoUpdateDone\n";
    const testing::Matcher<std::string> tellsModules = HasSubstr(told);
    const testing::Matcher<std::string> tellsNobody = Not(HasSubstr("allupdatedone"));
    EXPECT_EXIT(live([&, from = previous, to = current] { changePower(from, to, kGrace - 1); }),
                ExitedWithCode(0),
                AllOf(HasSubstr("6: 599 seconds since the service started, try to update from 10 minutes "
                                "later\n"),
                      isOff ? tellsModules : tellsNobody, Not(HasSubstr("try fw update")),
                      HasSubstr("6: service finalize\n")));
}

TEST_F(TarnwickLife, AClockThatFailsCountsAsZero)
{
    installPending();
    const auto play = [&] {
        nextLook = -1;
        platform.changePowerState(0, 2);
    };
    // Zero minus the start is far ahead: no grace period.
    EXPECT_EXIT(live(play), ExitedWithCode(0),
                AllOf(HasSubstr("6: Failed get_current_time\n"),
                      HasSubstr("6: prev_state [0] cur_state[2] try fw update\n")));
}

TEST_F(TarnwickLife, AClockThatFailsAtTheStartHasStartedAtZero)
{
    installPending();
    started = -1;
    EXPECT_EXIT(live([&] { changePower(0, 2, kGrace - kStart); }), ExitedWithCode(0),
                AllOf(HasSubstr("6: Failed get_current_time\n"),
                      HasSubstr("6: prev_state [0] cur_state[2] try fw update\n")));
}

// The set comes on again while the module is being written.
class TarnwickPowerOn : public TarnwickLife, public testing::WithParamInterface<int>
{
};
INSTANTIATE_TEST_SUITE_P(From, TarnwickPowerOn, testing::Values(2, 4));

TEST_P(TarnwickPowerOn, InTheMiddleOfAnUpdateMeansAReboot)
{
    static Gate gate;
    installPending().answers.onCall = [](const std::string& function) {
        if (function == "doUpdate") {
            gate.pass();
        }
    };
    const int from = GetParam();
    const auto play = [&] {
        changePower(0, 2, kGrace);
        EXPECT_TRUE(eventually([] { return gate.isReached(); }));
        changePower(from, 0, kGrace + kSecond);
    };
    EXPECT_EXIT(live(play), ExitedWithCode(0),
                AllOf(Not(HasSubstr("an expectation failed")),
                      HasSubstr("6: prev_state [" + std::to_string(from) + "] cur_state[0] try reboot\n"),
                      HasSubstr("pwrctl_request_reboot(536870944)\n"), HasSubstr("6: service finalize\n")));
}

// Neither another standby, nor a change that is none from off to on.
TEST_F(TarnwickLife, OneStandbyUpdateAndNothingElseWhileItRuns)
{
    static Gate gate;
    installPending().answers.onCall = [](const std::string& function) {
        if (function == "doUpdate") {
            gate.pass();
        }
    };
    const auto play = [&] {
        changePower(0, 2, kGrace);
        EXPECT_TRUE(eventually([] { return gate.isReached(); }));
        platform.clearLog();
        for (const auto& [previous, current] :
             {std::pair{0, 2}, std::pair{3, 0}, std::pair{2, 1}, std::pair{4, 3}, std::pair{1, 0}}) {
            EXPECT_THAT(changePower(previous, current, kGrace + kSecond), testing::ElementsAre(0));
        }
        EXPECT_THAT(platform.log(), testing::IsEmpty());
        gate.open();
    };
    EXPECT_EXIT(live(play), ExitedWithCode(0),
                AllOf(Not(HasSubstr("an expectation failed")), HasSubstr("no list\n"),
                      Not(HasSubstr("pwrctl_request_reboot"))));
}

TEST_F(TarnwickLife, NothingButStandbyStartsAnUpdate)
{
    installPending();
    const auto play = [&] {
        platform.clearLog();
        for (const auto& [previous, current] :
             {std::pair{2, 0}, std::pair{4, 0}, std::pair{0, 3}, std::pair{0, 1}, std::pair{1, 2}}) {
            EXPECT_THAT(changePower(previous, current, kGrace), testing::ElementsAre(0));
        }
        EXPECT_THAT(platform.log(), testing::IsEmpty());
        platform.powerOff(0);
    };
    EXPECT_EXIT(live(play), ExitedWithCode(0),
                AllOf(Not(HasSubstr("an expectation failed")), Not(HasSubstr("reboot"))));
}

TEST_F(TarnwickLife, AStandbyWithoutAThreadForItLeavesTheUpdateToTheNext)
{
    installPending();
    const auto play = [&] {
        refusedThreads = 1;
        changePower(0, 2, kGrace);
        changePower(2, 0, kGrace); // no update runs: no reboot
        EXPECT_EQ(platform.countCalls("pwrctl_request_reboot"), 0);
        changePower(0, 2, kGrace);
    };
    EXPECT_EXIT(live(play), ExitedWithCode(0),
                AllOf(Not(HasSubstr("an expectation failed")),
                      HasSubstr("6: ========== [ Tuner update succeeded ] ==========\n"),
                      HasSubstr("no list\n")));
}

TEST_F(TarnwickLife, NothingHappensWhileTheSetMirrors)
{
    installPending();
    const auto play = [&] {
        EXPECT_EQ(platform.changeSetting(kMirroringKey, 1), 1);
        EXPECT_THAT(changePower(0, 2, kGrace - 1), testing::ElementsAre(0));
        EXPECT_THAT(changePower(0, 2, kGrace), testing::ElementsAre(0));
        EXPECT_EQ(platform.changeSetting(kMirroringKey, 0), 1);
        EXPECT_EQ(platform.fireNullNode(kMirroringKey), 1);
        changePower(0, 2, kGrace);
    };
    EXPECT_EXIT(live(play), ExitedWithCode(0),
                AllOf(Not(HasSubstr("an expectation failed")),
                      HasSubstr("6: [memory/menu/network/screenmirroring/smsrc_status] pralis get value : "
                                "[1]\n6: Mirrovex or ProductMode, not try update\n"
                                "6: Mirrovex or ProductMode, not try update\n"
                                "6: [memory/menu/network/screenmirroring/smsrc_status] pralis get value : "
                                "[0]\n6: pralis node is null\n"
                                "6: prev_state [0] cur_state[2] try fw update\n")));
}

TEST_F(TarnwickLife, NothingHappensInTheFactory)
{
    installPending();
    writeFile(kFactoryMarker, "");
    const auto play = [&] {
        EXPECT_THAT(changePower(0, 2, kGrace), testing::ElementsAre(0));
        platform.powerOff(0);
    };
    EXPECT_EXIT(live(play), ExitedWithCode(0),
                AllOf(Not(HasSubstr("an expectation failed")),
                      HasSubstr("6: Mirrovex or ProductMode, not try update\n"),
                      Not(HasSubstr("try fw update"))));
}

TEST_F(TarnwickLife, ModulesHearWhenTheSetIsSwitchedOff)
{
    installPending();
    const auto play = [&] { EXPECT_THAT(platform.powerOff(0), testing::ElementsAre(0)); };
    EXPECT_EXIT(live(play), ExitedWithCode(0),
                AllOf(Not(HasSubstr("an expectation failed")),
                      HasSubstr("6: Try allDoUpdateDone\n6: allDoUpdateDone Done\n6: service finalize\n")));
}

// ---- End, while another thread is at something ----

TEST_F(TarnwickLife, APowerOnAtItsEndIsNoReboot)
{
    installPending();
    platform.onCall("pwrctl_unsubscribe_state_changed_event", [&] { changePower(2, 0, kGrace + kSecond); });
    EXPECT_EXIT(live([&] { changePower(0, 2, kGrace); }), ExitedWithCode(0),
                AllOf(HasSubstr("6: service finalize\n"), Not(HasSubstr("reboot"))));
}

TEST_F(TarnwickLife, AWorkerThatComesAfterItsEndChecksNothing)
{
    installPending();
    static Gate fetch;
    platform.onCall("ABM_DownloadAppBinary", [] { fetch.pass(); });
    platform.onCall("pralis_notify_key_changed", [&] { platform.powerOff(0); }); // the last subscription
    platform.onCall("hangwatch_unregister_watchdog_service", [&] {
        fetch.open();
        eventually([&] { return isLogged("need update item, wait ui or bg fw update\n"); });
    });
    EXPECT_EXIT(
        liveAlone(), ExitedWithCode(0),
        AllOf(HasSubstr("6: Task is not running, writeFirmwareUpdateList stop\n"), HasSubstr("no list\n")));
}

TEST_F(TarnwickLife, ItsMainThreadLeavesTheLoopAndSleepsUntilAnotherHasEndedIt)
{
    installPending();
    platform.onCall("hangwatch_unregister_watchdog_service", [] {
        EXPECT_TRUE(eventually([] {
            const auto stat = common::readProcessStat("/proc/self/task/" + std::to_string(getpid()));
            return isLoopLeft && stat && stat->isAsleep();
        }));
    });
    EXPECT_EXIT(live([&] { platform.powerOff(0); }), ExitedWithCode(0),
                AllOf(Not(HasSubstr("an expectation failed")), HasSubstr("state 21\n")));
}

TEST_F(TarnwickLife, AWorkerThatALibraryEndsIsNoEndOfTheService)
{
    static Gate check;
    installPending().answers.onCall = [](const std::string& function) {
        if (function == "checkVersion") {
            check.open();
            pthread_exit(nullptr);
        }
    };
    platform.onCall("pralis_notify_key_changed", [&] { // the last subscription
        check.pass();
        untilOthersSleep();
        platform.powerOff(0);
    });
    EXPECT_EXIT(liveAlone(), ExitedWithCode(0),
                AllOf(HasSubstr("6: Try allDoUpdateDone\n"), HasSubstr("state 21\n")));
}

TEST_F(TarnwickLife, ATimerThatHasEndedItselfIsNotEndedAgain)
{
    installPending();
    const auto play = [&] {
        EXPECT_TRUE(eventually([&] { return isLogged("5"); })); // nothing to do for the UI: no more ticks
        untilOthersSleep();
        platform.powerOff(0);
    };
    EXPECT_EXIT(live(play), ExitedWithCode(0),
                AllOf(Not(HasSubstr("an expectation failed")), Not(HasSubstr("CRITICAL")),
                      HasSubstr("timer of 5000 ms\ntimer of 1000 ms\n")));
}

// ---- Start ----

TEST_F(TarnwickLife, TriesAgainEachSecondToStartItsWorkerWithoutAThreadForIt)
{
    refusedThreads = 2;
    EXPECT_EXIT(liveAlone(), ExitedWithCode(0), HasSubstr("timer of 1000 ms"));
}

TEST_F(TarnwickLife, EndsAtOnceAfterAnExceptionBeforeItIsOne)
{
    installPending();
    const auto start = [] {
        isLoopRefused = true;
        liveAlone();
    };
    EXPECT_EXIT(start(), ExitedWithCode(0),
                AllOf(HasSubstr("6: service finalize\n"), Not(HasSubstr("start work")),
                      Not(HasSubstr("Error: service_initialize fail!")), HasSubstr("state 21\n")));
}

TEST_F(TarnwickLife, TheWatchdogHearsEveryFiveSeconds)
{
    installPending();
    const auto play = [&] {
        EXPECT_TRUE(eventually([&] { return platform.countCalls("hangwatch_watchdog_notify") == 2; }));
        platform.powerOff(0);
    };
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EXIT(live(play), ExitedWithCode(0), Not(HasSubstr("an expectation failed")));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
}

TEST_F(TarnwickLife, APackageThatWasFetchedInThisBootIsNotFetchedAgain)
{
    installPending();
    platform.setFlag("/tmp/.fw_download_ready", true);
    EXPECT_EXIT(live([&] { platform.powerOff(0); }), ExitedWithCode(0),
                AllOf(Not(HasSubstr("ABM_DownloadAppBinary")),
                      Not(HasSubstr("FlagpostEventDone(\"/tmp/.fw_download_ready\")"))));
}

TEST_F(TarnwickLife, AFlagThatTheFetchHasRaisedIsNotRaisedAgain)
{
    installPending();
    platform.onCall("ABM_DownloadAppBinary", [&] { platform.setFlag("/tmp/.fw_download_ready", true); });
    EXPECT_EXIT(live([&] { platform.powerOff(0); }), ExitedWithCode(0),
                AllOf(HasSubstr("ABM_DownloadAppBinary"),
                      Not(HasSubstr("FlagpostEventDone(\"/tmp/.fw_download_ready\")"))));
}

TEST_F(TarnwickLife, ASubscriptionThatFailsIsToldAndTheServiceGoesOn)
{
    installPending();
    platform.answer("pwrctl_subscribe_state_changed_event", -1);
    platform.answer(std::string("pralis_notify_key_changed:") + kMirroringKey, 1);
    EXPECT_EXIT(live([&] { platform.powerOff(0); }), ExitedWithCode(0),
                AllOf(HasSubstr("6: Error: pwrctl_subscribe_state_changed_event() failed\n"),
                      Not(HasSubstr("Error: pwrctl_subscribe_poweroff_event() failed")),
                      HasSubstr("6: Error: pralis_notify_key_changed(SMSRC_STATUS) failed\n")));
}

TEST_F(TarnwickLife, SoIsTheOneForThePowersEnd)
{
    installPending();
    platform.answer("pwrctl_subscribe_poweroff_event", 1);
    EXPECT_EXIT(live([&] { changePower(0, 2, kGrace); }), ExitedWithCode(0),
                AllOf(Not(HasSubstr("Error: pwrctl_subscribe_state_changed_event() failed")),
                      HasSubstr("6: Error: pwrctl_subscribe_poweroff_event() failed\n"),
                      Not(HasSubstr("(SMSRC_STATUS) failed"))));
}

// A start that fails in the middle: the worker finds out what is pending, and ends the service if nothing is.
TEST_F(TarnwickLife, AStartWithoutModulesFails)
{
    EXPECT_EXIT(live([] {}), ExitedWithCode(0),
                AllOf(HasSubstr("6: firmwareItems empty\n6: Error: SymbolManager load fail!\n\n"
                                "6: Error: service_initialize fail!\n"),
                      Not(HasSubstr("hangwatch_register")), HasSubstr("4: no update module item!\n"),
                      HasSubstr("6: service finalize\n"), Not(HasSubstr("CRITICAL"))));
    EXPECT_TRUE(exists("/dev/shm/sem.SEM_UPDATE_CONTROL")); // its end makes what is not there
}

TEST_F(TarnwickLife, AnExternalModuleIsOneToStartWith)
{
    installControl("EXT-hdmi");
    EXPECT_EXIT(liveAlone(), ExitedWithCode(0),
                AllOf(Not(HasSubstr("SymbolManager load fail")), HasSubstr("6: service finalize\n")));
}

TEST_F(TarnwickLife, AStartWithoutAWatchdogFails)
{
    installPending();
    platform.answer("hangwatch_register_watchdog_service", -1);
    EXPECT_EXIT(live([&] { platform.powerOff(0); }), ExitedWithCode(0),
                HasSubstr("6: Error: [fwupdate-daemon] hangwatch_register_watchdog_service fail!\n\n"
                          "6: Error: service_initialize fail!\n"));
}

TEST_F(TarnwickLife, AStartWithoutASemaphoreFails)
{
    installPending();
    const char* const file = "/dev/shm/sem.SEM_UPDATE_CONTROL";
    std::filesystem::create_directory(file);
    EXPECT_EXIT(
        live([&] { platform.powerOff(0); }), ExitedWithCode(0),
        AllOf(HasSubstr("6: Error: service_initialize fail!\n"), Not(HasSubstr("hangwatch_register"))));
    remove(file);
}

} // namespace
