// The wait for an update has no predicate: what becomes of a signal that comes too early, and of a wake-up
// that nobody has signalled; the wait for the semaphore can fail; and how long a wait is meant to be, a busy
// machine tells nobody. None of it can be brought about from outside, so this program has the C library's
// waits to itself.
#include <cerrno>
#include <chrono>
#include <dlfcn.h>
#include <filesystem>
#include <functional>
#include <pthread.h>
#include <stdexcept>
#include <utility>
#include <vector>

#include "tests/support/manager-agent-test.h"

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define IS_WATCHED_BY_THREAD_SANITIZER
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define IS_WATCHED_BY_THREAD_SANITIZER
#endif

#ifndef IS_WATCHED_BY_THREAD_SANITIZER // it has to see every wait itself

namespace
{

// What the next wait of this thread does first; true: and that is all, it is over.
thread_local std::function<bool()> beforeWait;

// Until when that wait is.
thread_local timespec deadlineOfWait;

// What this thread has slept, and has been woken from at once. Null: it sleeps.
thread_local std::vector<std::chrono::nanoseconds>* sleeps = nullptr;

std::chrono::nanoseconds lengthOf(const timespec& time)
{
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

// What the next wait for a semaphore fails with; 0: it does not.
int semaphoreError = 0;

} // namespace

extern "C" int sem_wait(sem_t* semaphore)
{
    static auto* const wait = reinterpret_cast<int (*)(sem_t*)>(dlsym(RTLD_NEXT, "sem_wait"));
    const int error = std::exchange(semaphoreError, 0);
    if (error == 0) {
        return wait(semaphore);
    }
    errno = error;
    return -1;
}

extern "C" int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                      const timespec* deadline)
{
    using Wait = int (*)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
    // Times that are wider than the processor's words have calls of their own.
    constexpr const char* kCall =
        sizeof(time_t) > sizeof(long) ? "__pthread_cond_clockwait64" : "pthread_cond_clockwait";
    static const auto wait = reinterpret_cast<Wait>(dlsym(RTLD_NEXT, kCall));
    const std::function<bool()> first = std::exchange(beforeWait, nullptr);
    deadlineOfWait = *deadline;
    return first && first() ? 0 : wait(condition, mutex, clock, deadline);
}

extern "C" int nanosleep(const timespec* length, timespec* left)
{
    using Sleep = int (*)(const timespec*, timespec*);
    constexpr const char* kCall = sizeof(time_t) > sizeof(long) ? "__nanosleep64" : "nanosleep";
    static const auto sleep = reinterpret_cast<Sleep>(dlsym(RTLD_NEXT, kCall));
    if (sleeps == nullptr) {
        return sleep(length, left);
    }
    sleeps->push_back(lengthOf(*length));
    return 0;
}

namespace
{

using namespace std::chrono_literals;
using testing::ElementsAre;

using FWUpdateSymbolManagerWait = ManagerTest;

TEST_F(FWUpdateSymbolManagerWait, ForAnUpdateThatHasEndedAlreadyTimesOut)
{
    TestModule tuner = addPending("tuner", "empTuner", 0);
    beforeWait = [&] {
        awaitEndOfUpdate(tuner);
        std::this_thread::sleep_for(std::chrono::milliseconds(500)); // and has signalled
        return false;
    };
    EXPECT_THROW(manager.update_timeout_wrapper(tuner.module, 0, FW_CALLER_EMP, noContext),
                 std::runtime_error);
    EXPECT_TRUE(isLogged("========== [ Tuner update succeeded ] =========="));
    EXPECT_TRUE(isLogged("Tuner update timeout"));
}

TEST_F(FWUpdateSymbolManagerWait, ThatEndsWithoutASignalCountsAsACompletion)
{
    TestModule tuner = addPending("tuner", "empTuner", 60);
    tuner.library.answers.results["doUpdate"] = 7;
    Gate gate;
    holdUpdates(tuner.library, gate);
    beforeWait = [&] { return eventually([&] { return gate.isReached(); }); };
    EXPECT_EQ(manager.update_timeout_wrapper(tuner.module, 60, FW_CALLER_EMP, noContext), 0);
    EXPECT_FALSE(isLogged("Tuner update timeout"));
    EXPECT_EQ(semaphoreValue(), 1); // while the library still writes
    gate.open();
    EXPECT_TRUE(eventually([&] { return isLogged("Error: Tuner Firmware doUpdate Fail 7 (0:Success)"); }));
}

TEST_F(FWUpdateSymbolManagerWait, IsForTheExpectedTimeAndTwoSeconds)
{
    using Clock = std::chrono::steady_clock;
    TestModule tuner = addPending("tuner", "empTuner", 60);
    const Clock::time_point before = Clock::now();
    Clock::time_point atWait;
    beforeWait = [&] {
        atWait = Clock::now();
        return true;
    };
    manager.update_timeout_wrapper(tuner.module, 60, FW_CALLER_EMP, noContext);
    EXPECT_GE(lengthOf(deadlineOfWait), before.time_since_epoch() + 62s);
    EXPECT_LE(lengthOf(deadlineOfWait), atWait.time_since_epoch() + 62s);
    awaitEndOfUpdate(tuner);
}

TEST_F(FWUpdateSymbolManagerWait, ForTheSemaphoreThatFailsGivesNothingBackThatWasNotTaken)
{
    TestModule tuner = addPending("tuner", "empTuner", 60);
    semaphoreError = EINVAL;
    EXPECT_EQ(manager.update_timeout_wrapper(tuner.module, 60, FW_CALLER_EMP, noContext), 0);
    EXPECT_EQ(semaphoreValue(), 1); // a second holder would have a turn of its own
}

// ---- The waits of the UI's threads, to the millisecond ----

class FWUpdateUIAWait : public AgentTest
{
protected:
    void SetUp() override
    {
        AgentTest::SetUp();
        sleeps = &slept;
    }
    void TearDown() override
    {
        sleeps = nullptr;
        AgentTest::TearDown();
    }

    std::vector<std::chrono::nanoseconds> slept;
};

TEST_F(FWUpdateUIAWait, AfterALaunchIsFiveSeconds)
{
    agent.launch_Device_Upgrade_UI();
    EXPECT_THAT(slept, ElementsAre(5s));
}

TEST_F(FWUpdateUIAWait, AfterALaunchThatFailsIsHalfASecond)
{
    platform.answerInTurn("applaunch_send_launch_request", {-1, -2});
    agent.launch_Device_Upgrade_UI();
    EXPECT_THAT(slept, ElementsAre(500ms, 500ms, 5s));
}

TEST_F(FWUpdateUIAWait, ForThePackageManagerIsAMinuteInSeconds)
{
    std::filesystem::remove(kReadyMarker);
    agent.chk_pkgMgrReady();
    EXPECT_EQ(slept, std::vector<std::chrono::nanoseconds>(60, 1s));
    EXPECT_EQ(state(), FWSVC_PKGMGR_CHECKED);
    EXPECT_EQ(platform.setting(kWorkingKey), 0);
}

} // namespace

#endif
