// Every call with which the daemon, GLib and the C++ library wait or read a clock, on the clock of a set.
// Runs inside a set: WaitsAtARate with `--clock-rate 60`, WaitsAtAJump with a clock that jumps 600 s
// forwards once the file /tmp/waiting is there.

#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <dlfcn.h>
#include <fstream>
#include <functional>
#include <future>
#include <glib.h>
#include <gtest/gtest.h>
#include <mutex>
#include <poll.h>
#include <semaphore.h>
#include <string>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using std::chrono::duration;
using std::chrono::seconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

// The PC's clock, past the library under test. Times that are wider than the processor's words have calls of
// their own.
double hostSeconds()
{
    constexpr const char* kCall = sizeof(time_t) > sizeof(long) ? "__clock_gettime64" : "clock_gettime";
    static void* library = dlopen("libc.so.6", RTLD_NOW);
    static auto* read = reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(library, kCall));
    timespec now{};
    read(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

timespec inSeconds(clockid_t clock, int wait)
{
    timespec time{};
    clock_gettime(clock, &time);
    time.tv_sec += wait;
    return time;
}

// ---- The waits: each takes seconds and comes back when they are over, by nothing but its time-out ----

void waitOnPthreadCondition(clockid_t clock, int wait)
{
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, clock);
    pthread_cond_t condition;
    pthread_cond_init(&condition, &attributes);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&mutex);
    const timespec end = inSeconds(clock, wait);
    EXPECT_EQ(pthread_cond_timedwait(&condition, &mutex, &end), ETIMEDOUT);
    pthread_mutex_unlock(&mutex);
    pthread_cond_destroy(&condition);
}

void waitOnSemaphore(bool monotonic, int wait)
{
    sem_t semaphore;
    sem_init(&semaphore, 0, 0);
    const clockid_t clock = monotonic ? CLOCK_MONOTONIC : CLOCK_REALTIME;
    const timespec end = inSeconds(clock, wait);
    const int result = monotonic ? sem_clockwait(&semaphore, clock, &end) : sem_timedwait(&semaphore, &end);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    sem_destroy(&semaphore);
}

void waitInMainLoop(int wait)
{
    GMainContext* context = g_main_context_new();
    GMainLoop* loop = g_main_loop_new(context, FALSE);
    GSource* source = g_timeout_source_new(static_cast<guint>(wait) * 1000);
    g_source_set_callback(
        source,
        [](gpointer data) -> gboolean {
            g_main_loop_quit(static_cast<GMainLoop*>(data));
            return G_SOURCE_REMOVE;
        },
        loop, nullptr);
    g_source_attach(source, context);
    g_main_loop_run(loop);
    g_source_unref(source);
    g_main_loop_unref(loop);
    g_main_context_unref(context);
}

void waitOnGlibCondition(int wait)
{
    GMutex mutex;
    GCond condition;
    g_mutex_init(&mutex);
    g_cond_init(&condition);
    g_mutex_lock(&mutex);
    EXPECT_FALSE(g_cond_wait_until(&condition, &mutex, g_get_monotonic_time() + wait * G_TIME_SPAN_SECOND));
    g_mutex_unlock(&mutex);
    g_cond_clear(&condition);
    g_mutex_clear(&mutex);
}

template <typename Clock>
void waitOnStdCondition(int wait)
{
    std::mutex mutex;
    std::condition_variable condition;
    std::unique_lock lock(mutex);
    EXPECT_EQ(condition.wait_until(lock, Clock::now() + seconds(wait)), std::cv_status::timeout);
}

void waitForMutex(int wait)
{
    std::timed_mutex mutex;
    mutex.lock();
    std::thread([&] { EXPECT_FALSE(mutex.try_lock_for(seconds(wait))); }).join();
    mutex.unlock();
}

void waitWithEpoll(int wait)
{
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    EXPECT_EQ(epoll_wait(epoll, &event, 1, wait * 1000), 0);
    close(epoll);
}

void waitWithSelect(int wait)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    fd_set reading;
    FD_ZERO(&reading);
    FD_SET(ends[0], &reading);
    timeval timeout{wait, 0};
    EXPECT_EQ(select(ends[0] + 1, &reading, nullptr, nullptr, &timeout), 0);
    EXPECT_FALSE(FD_ISSET(ends[0], &reading));
    EXPECT_LE(timeout.tv_sec, 0);
    close(ends[0]);
    close(ends[1]);
}

void waitWithPpoll(int wait)
{
    const timespec timeout{wait, 0};
    EXPECT_EQ(ppoll(nullptr, 0, &timeout, nullptr), 0);
}

// Each process is told of a change, also one that was forked from one that has waited already.
void waitInTwoProcesses(int wait)
{
    EXPECT_EQ(poll(nullptr, 0, 100), 0);
    const pid_t child = fork();
    EXPECT_EQ(poll(nullptr, 0, wait * 1000), 0);
    if (child == 0) {
        _exit(0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

// Who has slept and then fails without a cause of its own must not get one from here.
void sleepUntilWallTime(int wait)
{
    const timespec end = inSeconds(CLOCK_REALTIME, wait);
    errno = 0;
    EXPECT_EQ(clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &end, nullptr), 0);
    EXPECT_EQ(errno, 0);
}

struct Wait {
    const char* name;
    std::function<void(int)> run;
    bool isTold = false; // of a change of the clock, and does not look for itself
};

const std::vector<Wait>& waits()
{
    static const std::vector<Wait> table{
        {"sleep", [](int wait) { EXPECT_EQ(sleep(static_cast<unsigned int>(wait)), 0U); }, true},
        {"usleep", [](int wait) { EXPECT_EQ(usleep(static_cast<useconds_t>(wait) * 1000000), 0); }, true},
        {"sleep_for", [](int wait) { std::this_thread::sleep_for(seconds(wait)); }, true},
        {"clock_nanosleep", sleepUntilWallTime, true},
        {"poll", [](int wait) { EXPECT_EQ(poll(nullptr, 0, wait * 1000), 0); }, true},
        {"ppoll", waitWithPpoll, true},
        {"poll in two processes", waitInTwoProcesses},
        {"select", waitWithSelect, true},
        {"epoll_wait", waitWithEpoll, true},
        {"condition, steady clock", waitOnStdCondition<steady_clock>},
        {"condition, system clock", waitOnStdCondition<system_clock>},
        {"pthread condition, wall time", [](int wait) { waitOnPthreadCondition(CLOCK_REALTIME, wait); }},
        {"pthread condition, monotonic", [](int wait) { waitOnPthreadCondition(CLOCK_MONOTONIC, wait); }},
        {"semaphore, wall time", [](int wait) { waitOnSemaphore(false, wait); }},
        {"semaphore, monotonic", [](int wait) { waitOnSemaphore(true, wait); }},
        {"timed mutex", waitForMutex},
        {"future", [](int wait) { std::promise<int>().get_future().wait_for(seconds(wait)); }, true},
        {"GLib condition", waitOnGlibCondition, true},
        {"GLib main loop", waitInMainLoop, true},
    };
    return table;
}

// Runs all waits at once, `afterStart` when they have begun, and expects each to have lasted `wait` seconds
// of the set's time and a small part of that on the PC.
void expectAllToLast(int wait, const std::function<void()>& afterStart)
{
    const double hostStart = hostSeconds();
    std::vector<std::thread> threads;
    for (const Wait& one : waits()) {
        threads.emplace_back([&one, wait] {
            const auto start = steady_clock::now();
            one.run(wait);
            const double lasted = duration<double>(steady_clock::now() - start).count();
            EXPECT_GE(lasted, wait - 0.01) << one.name << " came back early";
        });
    }
    afterStart();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_LT(hostSeconds() - hostStart, wait / 3.0) << "the waits took the PC's time";
}

TEST(Waits, AtARateTakeTheSetsTime)
{
    expectAllToLast(120, [] {});
}

TEST(Waits, AtAJumpComeBackAtOnce)
{
    expectAllToLast(600, [] {
        usleep(500000);
        std::ofstream("/tmp/waiting") << "yes";
    });
}

// At the PC's pace, with somebody who changes the clock all the time.
TEST(Waits, OutlastManyChanges)
{
    static constexpr int kWait = 4;
    std::vector<std::thread> threads;
    std::ofstream("/tmp/waiting") << "yes";
    for (const Wait& one : waits()) {
        threads.emplace_back([&one] {
            const auto start = steady_clock::now();
            one.run(kWait);
            EXPECT_GE(duration<double>(steady_clock::now() - start).count(), kWait - 0.01) << one.name;
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// An idle program of a set is idle: it runs when something is due, not to look at the clock.
TEST(Waits, WakeOnlyForWhatIsDue)
{
    static constexpr int kWait = 3;
    static constexpr long kMostWakes = 10; // a look every 20 ms would be 150
    std::vector<std::thread> threads;
    for (const Wait& one : waits()) {
        if (!one.isTold) {
            continue;
        }
        threads.emplace_back([&one] {
            rusage before{};
            rusage after{};
            getrusage(RUSAGE_THREAD, &before);
            one.run(kWait);
            getrusage(RUSAGE_THREAD, &after);
            EXPECT_LE(after.ru_nvcsw - before.ru_nvcsw, kMostWakes) << one.name;
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(Clocks, AgreeWithEachOther)
{
    const auto steadyStart = steady_clock::now();
    const auto wallStart = system_clock::now();
    const gint64 glibStart = g_get_monotonic_time();
    const time_t timeStart = time(nullptr);
    timeval dayStart{};
    gettimeofday(&dayStart, nullptr);
    usleep(60000000);
    const double steady = duration<double>(steady_clock::now() - steadyStart).count();
    timeval dayEnd{};
    gettimeofday(&dayEnd, nullptr);
    // At sixty times the pace a delay of one second between two of these lines shows as a minute.
    constexpr double kTolerance = 120;
    EXPECT_GE(steady, 60);
    EXPECT_NEAR(duration<double>(system_clock::now() - wallStart).count(), steady, kTolerance);
    EXPECT_NEAR(static_cast<double>(g_get_monotonic_time() - glibStart) / 1e6, steady, kTolerance);
    EXPECT_NEAR(static_cast<double>(time(nullptr) - timeStart), steady, kTolerance);
    EXPECT_NEAR(static_cast<double>(dayEnd.tv_sec - dayStart.tv_sec), steady, kTolerance);
    EXPECT_GE(time(nullptr) - timeStart, 59);
}

// Waits are cut into slices of 20 ms of the PC's time. The sender holds the mutex while a slice ends, so that
// its signal comes when the waiter is out of one slice and not yet in the next.
TEST(Conditions, LoseNoSignalBetweenSlices)
{
    std::mutex mutex;
    std::condition_variable condition;
    for (int round = 0; round < 20; ++round) {
        std::unique_lock lock(mutex);
        std::thread sender([&] {
            const std::lock_guard guard(mutex); // had when the waiter begins to wait
            usleep(60 * 30000);                 // 30 ms of the PC at the test's rate
            condition.notify_one();
        });
        EXPECT_EQ(condition.wait_for(lock, seconds(600)), std::cv_status::no_timeout) << "round " << round;
        lock.unlock();
        sender.join();
        if (HasFailure()) {
            return; // each loss takes ten seconds to show
        }
    }
}

// A waiter without a condition of its own to test takes every return for a signal.
TEST(Conditions, WakeNobodyWithoutAReason)
{
    std::mutex mutex;
    std::condition_variable condition;
    std::unique_lock lock(mutex);
    for (int round = 0; round < 5; ++round) {
        EXPECT_EQ(condition.wait_for(lock, seconds(20)), std::cv_status::timeout);
    }
}

// ---- Waits that end because of what they wait for ----

class Descriptors : public testing::Test
{
protected:
    Descriptors() { EXPECT_EQ(pipe(ends_), 0); }
    ~Descriptors() override
    {
        close(ends_[0]);
        close(ends_[1]);
    }
    // When somebody waits: 50 ms of the PC at the test's rate.
    std::thread writeLater() const
    {
        return std::thread([this] {
            usleep(60 * 50000);
            EXPECT_EQ(write(ends_[1], "x", 1), 1);
        });
    }

    int ends_[2];
};

TEST_F(Descriptors, EndASelect)
{
    fd_set reading;
    fd_set failing;
    for (fd_set* set : {&reading, &failing}) {
        FD_ZERO(set);
        FD_SET(ends_[0], set);
    }
    timeval timeout{600, 0};
    std::thread writer = writeLater();
    EXPECT_EQ(select(ends_[0] + 1, &reading, nullptr, &failing, &timeout), 1);
    EXPECT_TRUE(FD_ISSET(ends_[0], &reading));
    EXPECT_FALSE(FD_ISSET(ends_[0], &failing));
    EXPECT_GT(timeout.tv_sec, 0);
    writer.join();

    fd_set writing = reading;
    FD_SET(ends_[1], &writing);
    EXPECT_EQ(select(ends_[1] + 1, nullptr, &writing, nullptr, &timeout), 1);
    EXPECT_FALSE(FD_ISSET(ends_[0], &writing)) << "an end that cannot be written";
    EXPECT_TRUE(FD_ISSET(ends_[1], &writing));
}

TEST_F(Descriptors, ThatAreClosedFailASelect)
{
    const int closed = dup(ends_[0]);
    close(closed);
    fd_set reading;
    FD_ZERO(&reading);
    FD_SET(closed, &reading);
    timeval timeout{600, 0};
    EXPECT_EQ(select(closed + 1, &reading, nullptr, nullptr, &timeout), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_TRUE(FD_ISSET(closed, &reading)) << "a call that fails leaves its sets alone";
}

TEST_F(Descriptors, EndAWaitWithEpoll)
{
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event wanted{};
    wanted.events = EPOLLIN | EPOLLET; // told once
    wanted.data.fd = ends_[0];
    ASSERT_EQ(epoll_ctl(epoll, EPOLL_CTL_ADD, ends_[0], &wanted), 0);
    std::thread writer = writeLater();
    epoll_event seen[2] = {};
    EXPECT_EQ(epoll_wait(epoll, seen, 2, 600000), 1);
    EXPECT_EQ(seen[0].data.fd, ends_[0]);
    EXPECT_EQ(epoll_wait(epoll, seen, 2, 5000), 0);
    writer.join();
    close(epoll);
    EXPECT_EQ(epoll_wait(epoll, seen, 2, 600000), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Descriptors, LeaveSignalsToAWaitWithEpoll)
{
    const auto ignore = [](int) {};
    std::signal(SIGUSR1, ignore);
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    const pthread_t waiter = pthread_self();
    std::thread sender([waiter] {
        usleep(60 * 50000);
        pthread_kill(waiter, SIGUSR1);
    });
    epoll_event seen{};
    EXPECT_EQ(epoll_wait(epoll, &seen, 1, 600000), -1);
    EXPECT_EQ(errno, EINTR);
    sender.join();
    close(epoll);
}

} // namespace
