// Updates: one with its time-out, the unattended run, the run that the user accepted, and what they count.
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/support/manager-test.h"

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::FieldsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* kIgnoreResume = "/tmp/.ignore_resume";
constexpr const char* kTimeout = "Tuner update timeout";

std::string doUpdateOf(const std::string& identifier, const std::string& firmwareName)
{
    return "doUpdate(\"" + std::string(set::kMounts) + "/" + identifier + "/" + firmwareName + ".bin\", 0)";
}

// A power lock of that kind and duration in milliseconds.
auto lockOf(int kind, unsigned int durationMs)
{
    return FieldsAre(kind, durationMs);
}

// ---- One update with a time-out ----

class FWUpdateSymbolManagerTimeout : public ManagerTest
{
protected:
    int wrap(TestModule& one, unsigned int seconds = 10, char* context = nullptr)
    {
        return manager.update_timeout_wrapper(one.module, seconds, FW_CALLER_EMP, context);
    }
    // The text of the time-out; empty when there was none.
    std::string timeoutOf(TestModule& one, unsigned int seconds)
    {
        try {
            wrap(one, seconds);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "";
    }
};

TEST_F(FWUpdateSymbolManagerTimeout, ReturnsTheResultOfTheUpdate)
{
    TestModule tuner = addPending("tuner", "empTuner", 10);
    tuner.library.answers.results["doUpdate"] = 7;
    EXPECT_EQ(wrap(tuner), 7);
}

TEST_F(FWUpdateSymbolManagerTimeout, TellsTheTimeThatTheUpdateIsGiven)
{
    TestModule tuner = addPending("tuner", "empTuner", 10);
    wrap(tuner, 12);
    EXPECT_THAT(managerLines(), ElementsAre(error("Tuner update time 12 sec")));
}

TEST_F(FWUpdateSymbolManagerTimeout, TellsATimeBeyondTheSignedRangeAsANegativeOne)
{
    TestModule tuner = addPending("tuner", "empTuner", 10);
    EXPECT_EQ(wrap(tuner, 4294967295U), 0);
    EXPECT_THAT(managerLines(), ElementsAre(error("Tuner update time -1 sec")));
}

TEST_F(FWUpdateSymbolManagerTimeout, RunsTheUpdateOnAThreadOfItsOwn)
{
    TestModule tuner = addPending("tuner", "empTuner", 10);
    std::thread::id updater = std::this_thread::get_id();
    tuner.library.answers.onCall = [&](const std::string& function) {
        if (function == "doUpdate") {
            updater = std::this_thread::get_id();
            untilOthersSleep();
        }
    };
    wrap(tuner);
    EXPECT_NE(updater, std::this_thread::get_id());
}

TEST_F(FWUpdateSymbolManagerTimeout, HoldsTheSemaphoreDuringTheUpdateOnly)
{
    TestModule tuner = addPending("tuner", "empTuner", 10);
    int during = -1;
    tuner.library.answers.onCall = [&](const std::string& function) {
        if (function == "doUpdate") {
            during = semaphoreValue();
            untilOthersSleep();
        }
    };
    EXPECT_EQ(semaphoreValue(), 1);
    wrap(tuner);
    EXPECT_EQ(during, 0);
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(FWUpdateSymbolManagerTimeout, UpdatesNothingWithoutTheSemaphore)
{
    TestModule tuner = addPending("tuner", "empTuner", 10);
    fs::create_directory("/dev/shm/sem.SEM_UPDATE_CONTROL");
    EXPECT_EQ(wrap(tuner), -1);
    fs::remove("/dev/shm/sem.SEM_UPDATE_CONTROL");
    EXPECT_THAT(tuner.library.calls(), IsEmpty());
    EXPECT_THAT(platform.log(),
                ElementsAre(error("Tuner update time 10 sec"), error("Parent\t: [sem_open] Failed\n")));
}

TEST_F(FWUpdateSymbolManagerTimeout, WaitsForAnotherProcessThatHoldsTheSemaphore)
{
    TestModule tuner = addPending("tuner", "empTuner", 10);
    int toChild[2];
    int fromChild[2];
    ASSERT_EQ(pipe(toChild), 0);
    ASSERT_EQ(pipe(fromChild), 0);
    sem_t* const semaphore = sem_open(kSemaphoreName, O_CREAT, 0600, 1);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    char token = 0;
    if (child == 0) {
        const bool done = sem_wait(semaphore) == 0 && write(fromChild[1], "t", 1) == 1 &&
                          read(toChild[0], &token, 1) == 1 && sem_post(semaphore) == 0;
        _exit(done ? 0 : 1);
    }
    ASSERT_EQ(read(fromChild[0], &token, 1), 1);

    auto update = std::async(std::launch::async, [&] { return wrap(tuner); });
    EXPECT_EQ(update.wait_for(milliseconds(400)), std::future_status::timeout);
    EXPECT_THAT(tuner.library.calls(), IsEmpty());
    ASSERT_EQ(write(toChild[1], "g", 1), 1);
    EXPECT_EQ(update.get(), 0);
    EXPECT_THAT(tuner.library.calls(), Contains(doUpdateOf("empTuner", "Tuner")));

    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    for (const int end : {toChild[0], toChild[1], fromChild[0], fromChild[1]}) {
        close(end);
    }
    sem_close(semaphore);
}

TEST_F(FWUpdateSymbolManagerTimeout, GoesOnWaitingForTheSemaphoreAfterASignal)
{
    TestModule tuner = addPending("tuner", "empTuner", 10);
    struct sigaction ignore = {};
    ignore.sa_handler = [](int) {};
    sigaction(SIGUSR1, &ignore, nullptr); // without SA_RESTART: it interrupts
    sem_t* const semaphore = sem_open(kSemaphoreName, O_CREAT, 0600, 1);
    ASSERT_EQ(sem_wait(semaphore), 0);

    std::atomic<int> result{-2};
    std::thread waiting([&] { result = wrap(tuner); });
    EXPECT_TRUE(eventually([&] { return isLogged("Tuner update time 10 sec"); }));
    std::this_thread::sleep_for(milliseconds(300));
    pthread_kill(waiting.native_handle(), SIGUSR1);
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_THAT(tuner.library.calls(), IsEmpty());
    sem_post(semaphore);
    waiting.join();
    EXPECT_EQ(result, 0);
    sem_close(semaphore);
}

TEST_F(FWUpdateSymbolManagerTimeout, KeepsANullContextNull)
{
    TestModule tuner = addPending("tuner", "empTuner", 10);
    wrap(tuner, 10, nullptr);
    EXPECT_THAT(tuner.library.calls(), Contains(R"(setContext("tuner", 2, null))"));
}

TEST_F(FWUpdateSymbolManagerTimeout, TakesAnExceptionInTheUpdateForAFailure)
{
    TestModule tuner = addPending("tuner", "empTuner", 10);
    tuner.library.answers.onCall = [](const std::string& function) {
        if (function == "doUpdate") {
            untilOthersSleep();
            throw std::logic_error("a library that throws");
        }
    };
    EXPECT_EQ(wrap(tuner), -1);
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(FWUpdateSymbolManagerTimeout, OutlivesALibraryThatEndsItsThread)
{
    TestModule tuner = addPending("tuner", "empTuner", 0);
    tuner.library.answers.onCall = [](const std::string& function) {
        if (function == "doUpdate") {
            pthread_exit(nullptr);
        }
    };
    EXPECT_EQ(timeoutOf(tuner, 0), kTimeout);
    EXPECT_EQ(semaphoreValue(), 1);
}

TEST_F(FWUpdateSymbolManagerTimeout, GivesUpTwoSecondsAfterTheExpectedTime)
{
    TestModule tuner = addPending("tuner", "empTuner", 1);
    Gate gate;
    holdUpdates(tuner.library, gate);
    const auto start = steady_clock::now();
    EXPECT_EQ(timeoutOf(tuner, 1), kTimeout);
    EXPECT_GE(steady_clock::now() - start, milliseconds(2900));
    gate.open();
    awaitEndOfUpdate(tuner);
}

TEST_F(FWUpdateSymbolManagerTimeout, GivesAModuleWithoutAnExpectedTimeTwoSeconds)
{
    TestModule tuner = addPending("tuner", "empTuner", 0);
    Gate gate;
    holdUpdates(tuner.library, gate);
    const auto start = steady_clock::now();
    EXPECT_EQ(timeoutOf(tuner, 0), kTimeout);
    EXPECT_GE(steady_clock::now() - start, milliseconds(1900));
    EXPECT_THAT(managerLines(), ElementsAre(error("Tuner update time 0 sec"), error(kTimeout)));
    gate.open();
    awaitEndOfUpdate(tuner);
}

TEST_F(FWUpdateSymbolManagerTimeout, FreesTheSemaphoreAtOnceAndLetsTheLateUpdateFinish)
{
    TestModule tuner = addPending("tuner", "empTuner", 0);
    Gate gate;
    holdUpdates(tuner.library, gate);
    int valueWhenTold = -1;
    platform.onLog([&](const std::string& text) {
        if (text == kTimeout) {
            valueWhenTold = semaphoreValue();
        }
    });
    EXPECT_EQ(timeoutOf(tuner, 0), kTimeout);
    EXPECT_EQ(valueWhenTold, 1);
    EXPECT_FALSE(isLogged("========== [ Tuner update succeeded ] =========="));
    gate.open();
    awaitEndOfUpdate(tuner);
    EXPECT_TRUE(isLogged("========== [ Tuner update succeeded ] =========="));
}

TEST_F(FWUpdateSymbolManagerTimeout, KeepsTheContextForAnUpdateThatStartsLate)
{
    TestModule tuner = addPending("tuner", "empTuner", 0);
    TestModule panel = addPending("panel", "empPanel", 0);
    Gate gate;
    holdUpdates(tuner.library, gate);
    EXPECT_EQ(timeoutOf(tuner, 0), kTimeout);
    auto context = std::make_unique<std::string>("FACTORY");
    EXPECT_THROW(wrap(panel, 0, context->data()), std::runtime_error); // waits for the late update
    context->assign("changed");
    context.reset();
    gate.open();
    awaitEndOfUpdate(panel);
    EXPECT_THAT(panel.library.calls(), Contains(R"(setContext("panel", 2, "FACTORY"))"));
}

TEST_F(FWUpdateSymbolManagerTimeout, IsNotPartOfTheUpdateWithoutAnythingAroundIt)
{
    TestModule tuner = addPending("tuner", "empTuner", 0);
    tuner.library.answers.results["doUpdate"] = 9;
    std::thread::id updater;
    tuner.library.answers.onCall = [&](const std::string&) { updater = std::this_thread::get_id(); };
    sem_t* const semaphore = sem_open(kSemaphoreName, O_CREAT, 0600, 1);
    ASSERT_EQ(sem_wait(semaphore), 0);
    EXPECT_EQ(manager.update_module(tuner.module, FW_CALLER_EMP, noContext), 9);
    EXPECT_EQ(updater, std::this_thread::get_id());
    EXPECT_THAT(managerLines(), IsEmpty());
    sem_close(semaphore);
}

// ---- Unattended run ----

class FWUpdateSymbolManagerAll : public ManagerTest
{
protected:
    void SetUp() override
    {
        ManagerTest::SetUp();
        writeFile(kListPath, "tuner empTuner\n");
    }
    int run() { return manager.doUpdateFirmwareAll(FW_CALLER_EMP); }
};

TEST_F(FWUpdateSymbolManagerAll, HasNothingToDoInAnEmptyRegistry)
{
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(platform.log(),
                ElementsAre(error("Try doUpdateFirmwareAll"), error("There is no update item")));
    EXPECT_THAT(platform.calls(), ElementsAre(R"(FlagpostEventDone("/tmp/.ignore_resume"))"));
}

TEST_F(FWUpdateSymbolManagerAll, LocksUpdatesAndDeletesNothingWhenNothingIsPending)
{
    TestModule tuner = addModule("tuner", "empTuner");
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(platform.log(), ElementsAre(error("Try doUpdateFirmwareAll"),
                                            error("tuner Firmware Expected Time Check Done"),
                                            error("There is no update item")));
    EXPECT_THAT(platform.calls(), ElementsAre(R"(FlagpostEventDone("/tmp/.ignore_resume"))"));
    EXPECT_THAT(tuner.library.calls(), IsEmpty());
    EXPECT_TRUE(exists(kListPath));
}

TEST_F(FWUpdateSymbolManagerAll, TellsEachOfItsSteps)
{
    addPending("tuner", "empTuner", 3);
    addModule("panel", "empPanel");
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(
        managerLines(),
        ElementsAre(error("Try doUpdateFirmwareAll"), error("tuner Firmware Expected Time Check Done"),
                    error("panel Firmware Expected Time Check Done"),
                    error("about total update time is 3000 ms, Lock the power during about that time."),
                    error("pwrctl_lock_state done"), error("Tuner update time 3 sec"),
                    error("pwrctl_unlock_state"), error("pwrctl_unlock_state done")));
}

TEST_F(FWUpdateSymbolManagerAll, LocksThePowerForTheExpectedTimesAndFiveSecondsPerModule)
{
    addPending("tuner", "empTuner", 10);
    addPending("panel", "empPanel", 20);
    addPending("remote", "empRemote", 0);
    run();
    EXPECT_THAT(platform.powerLocks(), ElementsAre(lockOf(2, 45000)));
}

TEST_F(FWUpdateSymbolManagerAll, HoldsThePowerLockUntilEveryModuleWasUpdatedAndNoticed)
{
    TestModule tuner = addPending("tuner", "empTuner", 3);
    std::vector<std::string> lockedCalls;
    tuner.library.answers.onCall = [&](const std::string& function) {
        if (!platform.heldPowerLocks().empty()) {
            lockedCalls.push_back(function);
        }
        untilOthersSleep();
    };
    run();
    EXPECT_THAT(lockedCalls, ElementsAre("setContext", "checkVersion", "doUpdate", "allUpdateDone"));
    EXPECT_THAT(platform.heldPowerLocks(), IsEmpty());
}

TEST_F(FWUpdateSymbolManagerAll, GoesOnWithoutThePowerLock)
{
    TestModule tuner = addPending("tuner", "empTuner", 3);
    platform.answer("pwrctl_lock_state", -1);
    run();
    EXPECT_THAT(tuner.library.calls(), Contains(doUpdateOf("empTuner", "Tuner")));
    EXPECT_EQ(platform.countCalls("pwrctl_unlock_state"), 1);
}

TEST_F(FWUpdateSymbolManagerAll, RaisesTheFlagBeforeItLocksThePower)
{
    addPending("tuner", "empTuner", 3);
    bool wasRaised = false;
    platform.onCall("pwrctl_lock_state", [&] { wasRaised = platform.isFlagRaised(kIgnoreResume); });
    run();
    EXPECT_TRUE(wasRaised);
}

TEST_F(FWUpdateSymbolManagerAll, VisitsTheModulesInTheRegistrysOrder)
{
    std::vector<std::string> updated;
    for (const auto& [name, identifier] :
         {std::pair("tuner", "empTuner"), {"panel", "empPanel"}, {"aaa", "empAaa"}}) {
        addPending(name, identifier, 3).library.answers.onCall = [&updated,
                                                                  name = std::string(name)](auto& function) {
            if (function == "doUpdate") {
                updated.push_back(name);
                untilOthersSleep();
            }
        };
    }
    run();
    EXPECT_THAT(updated, ElementsAre("tuner", "panel", "aaa"));
}

TEST_F(FWUpdateSymbolManagerAll, UpdatesFromThePackageWhateverItIsCalledFor)
{
    TestModule tuner = addPending("tuner", "empTuner", 3);
    tuner.module.updateType = UPDATE_TYPE_BUILTIN;
    manager.doUpdateFirmwareAll(FW_CALLER_BUILTIN);
    EXPECT_THAT(tuner.library.calls(), ElementsAre(R"(setContext("tuner", 2, ""))", R"(checkVersion("2.0"))",
                                                   doUpdateOf("empTuner", "Tuner"), "allUpdateDone()"));
}

TEST_F(FWUpdateSymbolManagerAll, UpdatesModulesThatTheUIOffersToo)
{
    TestModule tuner = addPending("tuner", "empTuner", 3, "select");
    run();
    EXPECT_THAT(tuner.library.calls(), Contains(doUpdateOf("empTuner", "Tuner")));
}

TEST_F(FWUpdateSymbolManagerAll, NoticesEveryModuleAfterTheLastUpdate)
{
    TestModule idle = addModule("idle", "empIdle");
    TestModule tuner = addPending("tuner", "empTuner", 3);
    size_t updatesBefore = 0;
    idle.library.answers.onCall = [&](const std::string& function) {
        if (function == "allUpdateDone") {
            updatesBefore = tuner.library.calls().size();
        }
    };
    run();
    EXPECT_THAT(idle.library.calls(), ElementsAre("allUpdateDone()"));
    EXPECT_EQ(updatesBefore, 3U);
    EXPECT_EQ(tuner.library.calls().back(), "allUpdateDone()");
}

TEST_F(FWUpdateSymbolManagerAll, DeletesTheListWhenThePowerIsUnlocked)
{
    addPending("tuner", "empTuner", 3);
    bool isListed = false;
    platform.onCall("pwrctl_unlock_state", [&] { isListed = exists(kListPath); });
    run();
    EXPECT_TRUE(isListed);
    EXPECT_FALSE(exists(kListPath));
}

TEST_F(FWUpdateSymbolManagerAll, StartsItsCountersAnew)
{
    addPending("tuner", "empTuner", 3);
    manager.totalUpdateTimeMs = 70000;
    manager.doneUpdateTime = 70;
    run();
    EXPECT_EQ(manager.totalUpdateTimeMs, 3000U);
    EXPECT_EQ(manager.doneUpdateTime, 3U);
}

TEST_F(FWUpdateSymbolManagerAll, ResetsItsCountersAlsoWhenNothingIsPending)
{
    manager.totalUpdateTimeMs = 70000;
    manager.doneUpdateTime = 70;
    run();
    EXPECT_EQ(manager.totalUpdateTimeMs, 0U);
    EXPECT_EQ(manager.doneUpdateTime, 0U);
}

TEST_F(FWUpdateSymbolManagerAll, CountsAModuleAsDoneAfterItsUpdate)
{
    addPending("tuner", "empTuner", 3);
    TestModule panel = addPending("panel", "empPanel", 4);
    uint32_t doneBefore = 0;
    panel.library.answers.onCall = [&](const std::string& function) {
        if (function == "doUpdate") {
            doneBefore = manager.doneUpdateTime;
            untilOthersSleep();
        }
    };
    run();
    EXPECT_EQ(doneBefore, 3U);
    EXPECT_EQ(manager.doneUpdateTime, 7U);
}

TEST_F(FWUpdateSymbolManagerAll, KeepsTheNameOfItsLastModule)
{
    addPending("tuner", "empTuner", 3);
    addPending("panel", "empPanel", 4);
    addModule("idle", "empIdle");
    run();
    EXPECT_EQ(manager.currentUpdateName, "panel");
}

TEST_F(FWUpdateSymbolManagerAll, GoesOnAfterAFailedUpdate)
{
    TestModule tuner = addPending("tuner", "empTuner", 3);
    TestModule panel = addPending("panel", "empPanel", 4);
    tuner.library.answers.results["doUpdate"] = 5;
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(panel.library.calls(), Contains(doUpdateOf("empPanel", "Panel")));
    EXPECT_EQ(manager.doneUpdateTime, 7U);
}

TEST_F(FWUpdateSymbolManagerAll, GoesOnAfterATimeout)
{
    TestModule tuner = addPending("tuner", "empTuner", 1);
    TestModule panel = addPending("panel", "empPanel", 30);
    Gate gate;
    holdUpdates(tuner.library, gate);
    std::vector<LogLine> linesAtNextModule;
    platform.onLog([&](const std::string& text) { // the late update lets the next one go on
        if (text == "Panel Firmware Update Try" && linesAtNextModule.empty()) {
            linesAtNextModule = managerLines();
            gate.open();
        }
    });
    run();
    EXPECT_THAT(linesAtNextModule, Contains(error("Error : Tuner update timeout")));
    EXPECT_THAT(panel.library.calls(), Contains(doUpdateOf("empPanel", "Panel")));
    EXPECT_EQ(manager.doneUpdateTime, 31U);
    awaitEndOfUpdate(tuner);
}

TEST_F(FWUpdateSymbolManagerAll, TellsATimeoutTwice)
{
    TestModule tuner = addPending("tuner", "empTuner", 0);
    Gate gate;
    holdUpdates(tuner.library, gate);
    run();
    EXPECT_THAT(managerLines(),
                ElementsAre(error("Try doUpdateFirmwareAll"),
                            error("tuner Firmware Expected Time Check Done"),
                            error("about total update time is 0 ms, Lock the power during about that time."),
                            error("pwrctl_lock_state done"), error("Tuner update time 0 sec"),
                            error("Tuner update timeout"), error("Error : Tuner update timeout"),
                            error("pwrctl_unlock_state"), error("pwrctl_unlock_state done")));
    gate.open();
    awaitEndOfUpdate(tuner);
}

TEST_F(FWUpdateSymbolManagerAll, TimesOutTheModulesBehindAnUpdateThatHangs)
{
    TestModule tuner = addPending("tuner", "empTuner", 0);
    TestModule panel = addPending("panel", "empPanel", 0);
    Gate gate;
    holdUpdates(tuner.library, gate);
    run();
    EXPECT_TRUE(isLogged("Error : Panel update timeout"));
    EXPECT_THAT(panel.library.calls(), ElementsAre("allUpdateDone()"));
    gate.open();
    awaitEndOfUpdate(panel); // written in the end, outside the run
    EXPECT_THAT(panel.library.calls(), Contains(doUpdateOf("empPanel", "Panel")));
}

TEST_F(FWUpdateSymbolManagerAll, GoesOnWithoutTheSemaphore)
{
    TestModule tuner = addPending("tuner", "empTuner", 3);
    fs::create_directory("/dev/shm/sem.SEM_UPDATE_CONTROL");
    EXPECT_EQ(run(), 0);
    fs::remove("/dev/shm/sem.SEM_UPDATE_CONTROL");
    EXPECT_THAT(tuner.library.calls(), ElementsAre("allUpdateDone()"));
    EXPECT_EQ(manager.doneUpdateTime, 3U);
}

TEST_F(FWUpdateSymbolManagerAll, WrapsTheLocksDurationAtThirtyTwoBits)
{
    addPending("tuner", "empTuner", 4294968); // 4294968000 ms are 704 beyond the range
    run();
    EXPECT_THAT(platform.powerLocks(), ElementsAre(lockOf(2, 5704)));
}

TEST_F(FWUpdateSymbolManagerAll, TellsADurationBeyondTheSignedRangeAsANegativeOne)
{
    addPending("tuner", "empTuner", 3000000);
    run();
    EXPECT_TRUE(
        isLogged("about total update time is -1294967296 ms, Lock the power during about that time."));
    EXPECT_THAT(platform.powerLocks(), ElementsAre(lockOf(2, 3000005000)));
}

// ---- Run that the user accepted ----

class FWUpdateSymbolManagerUI : public ManagerTest
{
protected:
    void SetUp() override
    {
        ManagerTest::SetUp();
        writeFile(kListPath, "tuner empTuner\n");
    }
};

TEST_F(FWUpdateSymbolManagerUI, TellsEachOfItsSteps)
{
    addPending("tuner", "empTuner", 3, "select");
    manager.totalUpdateTimeMs = 3000;
    EXPECT_EQ(manager.doUpdateFirmwareUI(1), 0);
    EXPECT_THAT(
        managerLines(),
        ElementsAre(error("Try doUpdateFirmwareUI"),
                    error("about total update time is 3000 ms, Lock the power during about that time."),
                    error("pwrctl_lock_state done"), error("Tuner update time 3 sec")));
}

TEST_F(FWUpdateSymbolManagerUI, AsksThePlatformInThisOrder)
{
    addPending("tuner", "empTuner", 3, "select");
    manager.totalUpdateTimeMs = 3000;
    manager.doUpdateFirmwareUI(1);
    std::vector<std::string> calls = platform.calls();
    calls.resize(3);
    EXPECT_THAT(calls, ElementsAre(R"(FlagpostEventDone("/tmp/.ignore_resume"))", "pwrctl_get_state()",
                                   "pwrctl_lock_state(0, 8000)"));
}

TEST_F(FWUpdateSymbolManagerUI, DoesNothingUnlessTheSetIsSwitchedOn)
{
    for (const int state : {1, 2, -1}) {
        TestModule tuner = addPending("tuner", "empTuner", 3, "select");
        platform.setPowerState(state);
        manager.doneUpdateTime = 70;
        EXPECT_EQ(manager.doUpdateFirmwareUI(1), 0);
        EXPECT_THAT(tuner.library.calls(), IsEmpty()) << state;
        EXPECT_THAT(platform.powerLocks(), IsEmpty()) << state;
        EXPECT_THAT(managerLines(), ElementsAre(error("Try doUpdateFirmwareUI"))) << state;
        EXPECT_TRUE(exists(kListPath)) << state;
        EXPECT_EQ(manager.doneUpdateTime, 0U) << state;
        EXPECT_TRUE(platform.isFlagRaised(kIgnoreResume)) << state;
        manager.firmwareItems.clear();
    }
}

TEST_F(FWUpdateSymbolManagerUI, LocksThePowerForAsManyModulesAsItIsTold)
{
    addPending("tuner", "empTuner", 3, "select");
    manager.totalUpdateTimeMs = 60000;
    manager.doUpdateFirmwareUI(3);
    EXPECT_THAT(platform.powerLocks(), ElementsAre(lockOf(0, 75000)));
}

TEST_F(FWUpdateSymbolManagerUI, LeavesThePowerLockToItsDuration)
{
    addPending("tuner", "empTuner", 3, "select");
    manager.doUpdateFirmwareUI(1);
    EXPECT_EQ(platform.countCalls("pwrctl_unlock_state"), 0);
}

TEST_F(FWUpdateSymbolManagerUI, KeepsTheTotalAndCountsTheModulesAnew)
{
    addPending("tuner", "empTuner", 3, "select");
    addPending("panel", "empPanel", 4, "force");
    manager.totalUpdateTimeMs = 7000;
    manager.doneUpdateTime = 70;
    manager.doUpdateFirmwareUI(2);
    EXPECT_EQ(manager.totalUpdateTimeMs, 7000U);
    EXPECT_EQ(manager.doneUpdateTime, 7U);
}

TEST_F(FWUpdateSymbolManagerUI, LeavesModulesAloneThatTheUIDoesNotOffer)
{
    TestModule tuner = addPending("tuner", "empTuner", 3, "none");
    TestModule idle = addModule("idle", "empIdle");
    idle.module.information.ui_use = "select";
    manager.doUpdateFirmwareUI(1);
    EXPECT_THAT(tuner.library.calls(), ElementsAre("allUpdateDone()"));
    EXPECT_THAT(idle.library.calls(), ElementsAre("allUpdateDone()"));
    EXPECT_EQ(manager.doneUpdateTime, 0U);
}

TEST_F(FWUpdateSymbolManagerUI, UpdatesFromThePackage)
{
    TestModule tuner = addPending("tuner", "empTuner", 3, "select");
    manager.doUpdateFirmwareUI(1);
    EXPECT_THAT(tuner.library.calls(), ElementsAre(R"(setContext("tuner", 2, ""))", R"(checkVersion("2.0"))",
                                                   doUpdateOf("empTuner", "Tuner"), "allUpdateDone()"));
}

TEST_F(FWUpdateSymbolManagerUI, UpdatesFromTheSystemImageWhatWasFoundThere)
{
    TestModule tuner = addPending("tuner", "empTuner", 3, "select");
    fillBuiltIn("Tuner", 3, "select");
    tuner.module.updateType = UPDATE_TYPE_BUILTIN;
    manager.doUpdateFirmwareUI(1);
    EXPECT_THAT(tuner.library.calls(),
                ElementsAre(R"(setContext("tuner", 6, ""))", R"(checkVersion("2.0"))",
                            R"(doUpdate("/lib/firmware/ext/Tuner/Tuner.bin", 0))", "allUpdateDone()"));
}

TEST_F(FWUpdateSymbolManagerUI, UpdatesFromThePackageWhatWasFoundInTheSandbox)
{
    TestModule tuner = addPending("tuner", "empTuner", 3, "select");
    tuner.module.updateType = UPDATE_TYPE_SBOX;
    manager.doUpdateFirmwareUI(1);
    EXPECT_THAT(tuner.library.calls(), Contains(doUpdateOf("empTuner", "Tuner")));
}

TEST_F(FWUpdateSymbolManagerUI, NamesTheModuleDuringItsUpdateOnly)
{
    TestModule tuner = addPending("tuner", "empTuner", 3, "select");
    std::string nameDuring;
    tuner.library.answers.onCall = [&](const std::string& function) {
        if (function == "doUpdate") {
            nameDuring = manager.currentUpdateName;
            untilOthersSleep();
        }
    };
    manager.doUpdateFirmwareUI(1);
    EXPECT_EQ(nameDuring, "tuner");
    EXPECT_EQ(manager.currentUpdateName, "");
}

TEST_F(FWUpdateSymbolManagerUI, CountsAModuleThatTimedOutAndForgetsItsName)
{
    TestModule tuner = addPending("tuner", "empTuner", 1, "select");
    Gate gate;
    holdUpdates(tuner.library, gate);
    EXPECT_EQ(manager.doUpdateFirmwareUI(1), 0);
    EXPECT_TRUE(isLogged("Error : Tuner update timeout"));
    EXPECT_EQ(manager.doneUpdateTime, 1U);
    EXPECT_EQ(manager.currentUpdateName, "");
    EXPECT_FALSE(exists(kListPath));
    gate.open();
    awaitEndOfUpdate(tuner);
}

TEST_F(FWUpdateSymbolManagerUI, DeletesTheListAfterTheModulesAreNoticed)
{
    TestModule tuner = addPending("tuner", "empTuner", 3, "select");
    bool wasListed = false;
    tuner.library.answers.onCall = [&](const std::string& function) {
        if (function == "allUpdateDone") {
            wasListed = exists(kListPath);
        }
        untilOthersSleep();
    };
    manager.doUpdateFirmwareUI(1);
    EXPECT_TRUE(wasListed);
    EXPECT_FALSE(exists(kListPath));
}

TEST_F(FWUpdateSymbolManagerUI, LocksNoticesAndDeletesAlsoWhenNothingIsPending)
{
    TestModule tuner = addModule("tuner", "empTuner");
    manager.doUpdateFirmwareUI(0);
    EXPECT_THAT(platform.powerLocks(), ElementsAre(lockOf(0, 0)));
    EXPECT_THAT(tuner.library.calls(), ElementsAre("allUpdateDone()"));
    EXPECT_FALSE(exists(kListPath));
}

// ---- Count ----

class FWUpdateSymbolManagerCount : public ManagerTest
{
protected:
    void count() { EXPECT_EQ(manager.cntUpdateFirmware(ui, other, isForced, totalMs), 0); }

    int ui = 70;
    int other = 70;
    bool isForced = true;
    int totalMs = 70;
};

TEST_F(FWUpdateSymbolManagerCount, IsZeroInAnEmptyRegistry)
{
    count();
    EXPECT_EQ(ui, 0);
    EXPECT_EQ(other, 0);
    EXPECT_FALSE(isForced);
    EXPECT_EQ(totalMs, 0);
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateSymbolManagerCount, TellsTheKindsApart)
{
    addPending("tuner", "empTuner", 3, "select");
    addPending("panel", "empPanel", 50, "none");
    addPending("remote", "empRemote", 4, "select");
    addModule("idle", "empIdle").module.information.ui_use = "force";
    count();
    EXPECT_EQ(ui, 2);
    EXPECT_EQ(other, 1);
    EXPECT_FALSE(isForced);
    EXPECT_EQ(totalMs, 7000);
}

TEST_F(FWUpdateSymbolManagerCount, IsForcedByASingleModule)
{
    addPending("tuner", "empTuner", 3, "force");
    addPending("panel", "empPanel", 4, "select");
    isForced = false;
    count();
    EXPECT_TRUE(isForced);
}

TEST_F(FWUpdateSymbolManagerCount, NamesEveryModule)
{
    addPending("tuner", "empTuner", 3, "force");
    addModule("idle", "empIdle");
    count();
    EXPECT_THAT(platform.log(), ElementsAre(error("tuner Firmware Expected Time Check Done"),
                                            error("idle Firmware Expected Time Check Done")));
}

TEST_F(FWUpdateSymbolManagerCount, AddsToTheTotalOfTheCountBefore)
{
    addPending("tuner", "empTuner", 30, "select");
    count();
    EXPECT_EQ(totalMs, 30000);
    count();
    EXPECT_EQ(totalMs, 60000);
    EXPECT_EQ(ui, 1);
}

TEST_F(FWUpdateSymbolManagerCount, WrapsAtThirtyTwoBits)
{
    addPending("tuner", "empTuner", 4294968, "select");
    count();
    EXPECT_EQ(totalMs, 704);
}

// ---- One module by its name ----

class FWUpdateSymbolManagerNamed : public ManagerTest
{
protected:
    int update(const std::string& name) { return manager.doUpdateFirmware(name, FW_CALLER_EMP, noContext); }
};

TEST_F(FWUpdateSymbolManagerNamed, FailsForAnUnknownName)
{
    addPending("tuner", "empTuner", 3);
    platform.clearLog();
    EXPECT_EQ(update("Tuner"), -1);
    EXPECT_THAT(platform.log(), IsEmpty());
}

TEST_F(FWUpdateSymbolManagerNamed, LeavesAnExternalModuleToItsLibrary)
{
    TestModule hdmi = addModule("EXT-hdmi", "");
    EXPECT_EQ(manager.doUpdateFirmware("EXT-hdmi", FW_CALLER_USB, noContext), 0);
    EXPECT_THAT(hdmi.library.calls(),
                ElementsAre(R"(setContext("EXT-hdmi", 0, ""))", R"(doUpdate("EXT-hdmi", 0))"));
}

TEST_F(FWUpdateSymbolManagerNamed, FailsWhenTheLibraryOfAnExternalModuleFails)
{
    addModule("EXT-hdmi", "").library.answers.results["doUpdate"] = 9;
    EXPECT_EQ(update("EXT-hdmi"), -1);
}

TEST_F(FWUpdateSymbolManagerNamed, UpdatesAModuleWhoseImageIsNewer)
{
    TestModule tuner = addPending("tuner", "empTuner", 3);
    tuner.module.needUpdate = false;
    EXPECT_EQ(update("tuner"), 0);
    EXPECT_THAT(tuner.library.calls(), ElementsAre(R"(setContext("tuner", 2, ""))", R"(checkVersion("2.0"))",
                                                   R"(setContext("tuner", 2, ""))", R"(checkVersion("2.0"))",
                                                   doUpdateOf("empTuner", "Tuner")));
}

TEST_F(FWUpdateSymbolManagerNamed, GivesTheUpdateTheTimeThatTheCheckHasFound)
{
    TestModule tuner = addPending("tuner", "empTuner", 3);
    tuner.module.expectedUpdateTime = 70;
    update("tuner");
    EXPECT_TRUE(isLogged("Tuner update time 3 sec"));
}

TEST_F(FWUpdateSymbolManagerNamed, PassesTheResultOfTheUpdateOn)
{
    addPending("tuner", "empTuner", 3).library.answers.results["doUpdate"] = 7;
    EXPECT_EQ(update("tuner"), 7);
}

TEST_F(FWUpdateSymbolManagerNamed, PassesEveryOtherVerdictOnWithoutAnUpdate)
{
    TestModule tuner = addPending("tuner", "empTuner", 3);
    for (const int verdict : {0, 2, -5}) {
        tuner.library.answers.verdict = verdict;
        EXPECT_EQ(update("tuner"), verdict);
        EXPECT_THAT(tuner.library.calls(), Not(Contains(StartsWith("doUpdate"))));
    }
}

TEST_F(FWUpdateSymbolManagerNamed, PassesAFailedCheckOn)
{
    addModule("tuner", "empTuner"); // without a package
    EXPECT_EQ(update("tuner"), -1);
}

TEST_F(FWUpdateSymbolManagerNamed, ReportsATimeoutAsNeedingTheUpdate)
{
    TestModule tuner = addPending("tuner", "empTuner", 0);
    Gate gate;
    holdUpdates(tuner.library, gate);
    EXPECT_EQ(update("tuner"), 1);
    EXPECT_THAT(managerLines(), ElementsAre(error("Tuner update time 0 sec"), error("Tuner update timeout"),
                                            error("Error : Tuner update timeout")));
    gate.open();
    awaitEndOfUpdate(tuner);
}

TEST_F(FWUpdateSymbolManagerNamed, HandlesEveryModuleOfThatNameAndReturnsTheLastResult)
{
    TestModule first = addPending("tuner", "empTuner", 3);
    TestModule other = addPending("panel", "empPanel", 3);
    TestModule second = addPending("remote", "empRemote", 3);
    second.module.libName = "tuner";
    first.library.answers.results["doUpdate"] = 7;
    second.library.answers.results["doUpdate"] = 8;
    EXPECT_EQ(update("tuner"), 8);
    EXPECT_THAT(first.library.calls(), Contains(doUpdateOf("empTuner", "Tuner")));
    EXPECT_THAT(other.library.calls(), IsEmpty());
}

// ---- Notices and packages ----

class FWUpdateSymbolManagerNotice : public ManagerTest
{
protected:
    // What a module was asked when another thread holds it in one of its functions, up to and with the
    // notice.
    std::vector<std::string> callsWithNoticeDuring(const std::string& held,
                                                   const std::function<void()>& other)
    {
        Gate gate;
        TestModule tuner = addPending("tuner", "empTuner", 60);
        tuner.library.answers.onCall = [&](const std::string& function) {
            if (function == held) {
                gate.pass();
            }
        };
        std::thread worker(other);
        EXPECT_TRUE(eventually([&] { return gate.isReached(); }));
        EXPECT_EQ(manager.allDoUpdateDone(), 0);
        const std::vector<std::string> calls = tuner.library.calls();
        gate.open();
        worker.join();
        return calls;
    }
};

TEST_F(FWUpdateSymbolManagerNotice, GoesToEveryModuleBetweenTwoLines)
{
    std::vector<std::string> noticed;
    for (const auto& [name, identifier] :
         {std::pair("tuner", "empTuner"), {"EXT-hdmi", ""}, {"aaa", "empAaa"}}) {
        addModule(name, identifier).library.answers.onCall = [this, &noticed,
                                                              name = std::string(name)](auto&) {
            noticed.push_back(name);
            EXPECT_THAT(platform.log(), ElementsAre(error("Try allDoUpdateDone")));
        };
    }
    EXPECT_EQ(manager.allDoUpdateDone(), 0);
    EXPECT_THAT(noticed, ElementsAre("tuner", "EXT-hdmi", "aaa"));
    EXPECT_THAT(platform.log(), ElementsAre(error("Try allDoUpdateDone"), error("allDoUpdateDone Done")));
}

TEST_F(FWUpdateSymbolManagerNotice, GoesAlsoToAModuleThatIsBeingChecked)
{
    const auto check = [&] { manager.firmwareItems.front().isNeedUpdate(FW_CALLER_EMP, noContext); };
    EXPECT_THAT(callsWithNoticeDuring("checkVersion", check),
                ElementsAre(R"(setContext("tuner", 2, ""))", R"(checkVersion("2.0"))", "allUpdateDone()"));
}

TEST_F(FWUpdateSymbolManagerNotice, GoesAlsoToAModuleThatIsBeingWritten)
{
    const auto write = [&] {
        FWUpdateSymbol& tuner = manager.firmwareItems.front();
        EXPECT_EQ(manager.update_timeout_wrapper(tuner, 60, FW_CALLER_EMP, noContext), 0);
    };
    EXPECT_THAT(callsWithNoticeDuring("doUpdate", write),
                ElementsAre(R"(setContext("tuner", 2, ""))", R"(checkVersion("2.0"))",
                            doUpdateOf("empTuner", "Tuner"), "allUpdateDone()"));
}

TEST_F(FWUpdateSymbolManagerNotice, PassesModulesByThatDoNotWantIt)
{
    addModule("deaf", "empDeaf", "missing-allUpdateDone");
    TestModule tuner = addModule("tuner", "empTuner");
    EXPECT_EQ(manager.allDoUpdateDone(), 0);
    EXPECT_THAT(tuner.library.calls(), ElementsAre("allUpdateDone()"));
}

TEST_F(FWUpdateSymbolManagerNotice, PassesModulesByThatAreNotLoaded)
{
    manager.firmwareItems.emplace_back("absent");
    EXPECT_EQ(manager.allDoUpdateDone(), 0);
}

TEST_F(FWUpdateSymbolManagerNotice, SucceedsInAnEmptyRegistry)
{
    EXPECT_EQ(manager.allDoUpdateDone(), 0);
    EXPECT_EQ(manager.downloadEMPAll(), 0);
    EXPECT_THAT(platform.log(), ElementsAre(error("Try allDoUpdateDone"), error("allDoUpdateDone Done")));
}

TEST_F(FWUpdateSymbolManagerNotice, RequestsEveryPackageWhateverTheAnswer)
{
    addModule("tuner", "empTuner");
    addModule("EXT-hdmi", "");
    addModule("aaa", "empAaa");
    platform.clearLog();
    platform.answer("ABM_DownloadAppBinary", 0);
    EXPECT_EQ(manager.downloadEMPAll(), 0);
    EXPECT_THAT(platform.packageRequests(), ElementsAre("empTuner", "empAaa"));
}

} // namespace
