// The wait for an update has no predicate: what becomes of a signal that comes too early, and of a wake-up
// that nobody has signalled; and the wait for the semaphore can fail. None of it can be brought about from
// outside, so this program has the C library's waits to itself.
#include <cerrno>
#include <dlfcn.h>
#include <functional>
#include <pthread.h>
#include <stdexcept>
#include <utility>

#include "tests/support/manager-test.h"

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
    return first && first() ? 0 : wait(condition, mutex, clock, deadline);
}

namespace
{

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

TEST_F(FWUpdateSymbolManagerWait, ForTheSemaphoreThatFailsGivesNothingBackThatWasNotTaken)
{
    TestModule tuner = addPending("tuner", "empTuner", 60);
    semaphoreError = EINVAL;
    EXPECT_EQ(manager.update_timeout_wrapper(tuner.module, 60, FW_CALLER_EMP, noContext), 0);
    EXPECT_EQ(semaphoreValue(), 1); // a second holder would have a turn of its own
}

} // namespace

#endif
