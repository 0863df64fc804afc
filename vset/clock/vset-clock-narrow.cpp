// The same calls with times of 32 bits, which a C library that once had no others keeps for the programs of
// that time, GLib and the C++ library among them. Each is handed on to its wide one. A wall clock beyond
// January 2038 has no such time: who asks gets EOVERFLOW, as from the C library.
#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/select.h>
#include <sys/time.h>

#define EXPORTED extern "C" __attribute__((visibility("default")))

static_assert(sizeof(time_t) == 4, "compile it without _TIME_BITS");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the padding of a wide time stands behind it");

namespace
{

struct WideTimespec {
    int64_t seconds;
    int32_t nanoseconds;
    int32_t padding;
};

struct WideTimeval {
    int64_t seconds;
    int64_t microseconds;
};

} // namespace

#define WIDE(name) __asm__(name) __attribute__((visibility("default")))
extern "C" {
int wideGettime(clockid_t clock, WideTimespec* time) WIDE("__clock_gettime64");
int wideClockNanosleep(clockid_t clock, int flags, const WideTimespec* request, WideTimespec* remain)
    WIDE("__clock_nanosleep_time64");
int widePpoll(pollfd* descriptors, nfds_t count, const WideTimespec* timeout, const sigset_t* mask)
    WIDE("__ppoll64");
int widePpollChecked(pollfd* descriptors, nfds_t count, const WideTimespec* timeout, const sigset_t* mask,
                     size_t size) WIDE("__ppoll64_chk");
int widePselect(int count, fd_set* reading, fd_set* writing, fd_set* failing, const WideTimespec* timeout,
                const sigset_t* mask) WIDE("__pselect64");
int wideSelect(int count, fd_set* reading, fd_set* writing, fd_set* failing, WideTimeval* timeout)
    WIDE("__select64");
int wideConditionWait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                      const WideTimespec* time) WIDE("__pthread_cond_clockwait64");
int wideConditionTimedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const WideTimespec* time)
    WIDE("__pthread_cond_timedwait64");
int wideMutexLock(pthread_mutex_t* mutex, clockid_t clock, const WideTimespec* time)
    WIDE("__pthread_mutex_clocklock64");
int wideReadLock(pthread_rwlock_t* lock, clockid_t clock, const WideTimespec* time)
    WIDE("__pthread_rwlock_clockrdlock64");
int wideWriteLock(pthread_rwlock_t* lock, clockid_t clock, const WideTimespec* time)
    WIDE("__pthread_rwlock_clockwrlock64");
int wideSemaphoreWait(sem_t* semaphore, clockid_t clock, const WideTimespec* time) WIDE("__sem_clockwait64");
}

namespace
{

WideTimespec widened(const timespec& time)
{
    return {time.tv_sec, static_cast<int32_t>(time.tv_nsec), 0};
}

// For calls that take no time as well: null stays null.
class Widened
{
public:
    explicit Widened(const timespec* time)
        : isNull_(time == nullptr), time_(isNull_ ? WideTimespec{} : widened(*time))
    {
    }
    const WideTimespec* get() const { return isNull_ ? nullptr : &time_; }

private:
    const bool isNull_;
    const WideTimespec time_;
};

// 0, or -1 with errno for a time that does not fit.
int narrow(const WideTimespec& wide, timespec* time)
{
    if (wide.seconds > INT32_MAX || wide.seconds < INT32_MIN) {
        errno = EOVERFLOW;
        return -1;
    }
    time->tv_sec = static_cast<time_t>(wide.seconds);
    time->tv_nsec = wide.nanoseconds;
    return 0;
}

} // namespace

// ---- Reading a clock ----

EXPORTED int clock_gettime(clockid_t clock, timespec* time)
{
    WideTimespec now{};
    return wideGettime(clock, &now) == 0 ? narrow(now, time) : -1;
}

EXPORTED int gettimeofday(timeval* time, void* /*zone*/)
{
    timespec now{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) {
        return -1;
    }
    *time = {now.tv_sec, now.tv_nsec / 1000};
    return 0;
}

EXPORTED time_t time(time_t* result)
{
    timespec now{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) {
        return -1;
    }
    if (result != nullptr) {
        *result = now.tv_sec;
    }
    return now.tv_sec;
}

EXPORTED int timespec_get(timespec* time, int base)
{
    return base == TIME_UTC && clock_gettime(CLOCK_REALTIME, time) == 0 ? base : 0;
}

// ---- Sleeping ----

EXPORTED int clock_nanosleep(clockid_t clock, int flags, const timespec* request, timespec* remain)
{
    const WideTimespec wide = widened(*request);
    WideTimespec left{};
    const int error = wideClockNanosleep(clock, flags, &wide, &left);
    if (error == EINTR && remain != nullptr && (flags & TIMER_ABSTIME) == 0) {
        narrow(left, remain);
    }
    return error;
}

EXPORTED int nanosleep(const timespec* request, timespec* remain)
{
    const int error = clock_nanosleep(CLOCK_MONOTONIC, 0, request, remain);
    if (error != 0) {
        errno = error;
    }
    return error == 0 ? 0 : -1;
}

// ---- Waiting for descriptors ----

EXPORTED int ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* mask)
{
    return widePpoll(descriptors, count, Widened(timeout).get(), mask);
}

EXPORTED int __ppoll_chk(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* mask,
                         size_t size)
{
    return widePpollChecked(descriptors, count, Widened(timeout).get(), mask, size);
}

EXPORTED int pselect(int count, fd_set* reading, fd_set* writing, fd_set* failing, const timespec* timeout,
                     const sigset_t* mask)
{
    return widePselect(count, reading, writing, failing, Widened(timeout).get(), mask);
}

EXPORTED int select(int count, fd_set* reading, fd_set* writing, fd_set* failing, timeval* timeout)
{
    if (timeout == nullptr) {
        return wideSelect(count, reading, writing, failing, nullptr);
    }
    WideTimeval wide{timeout->tv_sec, timeout->tv_usec};
    const int result = wideSelect(count, reading, writing, failing, &wide);
    *timeout = {static_cast<time_t>(wide.seconds), static_cast<suseconds_t>(wide.microseconds)};
    return result;
}

// ---- Conditions, locks, semaphores ----

EXPORTED int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                    const timespec* time)
{
    return wideConditionWait(condition, mutex, clock, Widened(time).get());
}

EXPORTED int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* time)
{
    return wideConditionTimedwait(condition, mutex, Widened(time).get());
}

EXPORTED int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const timespec* time)
{
    return wideMutexLock(mutex, clock, Widened(time).get());
}

EXPORTED int pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* time)
{
    return pthread_mutex_clocklock(mutex, CLOCK_REALTIME, time);
}

EXPORTED int pthread_rwlock_clockrdlock(pthread_rwlock_t* lock, clockid_t clock, const timespec* time)
{
    return wideReadLock(lock, clock, Widened(time).get());
}

EXPORTED int pthread_rwlock_timedrdlock(pthread_rwlock_t* lock, const timespec* time)
{
    return pthread_rwlock_clockrdlock(lock, CLOCK_REALTIME, time);
}

EXPORTED int pthread_rwlock_clockwrlock(pthread_rwlock_t* lock, clockid_t clock, const timespec* time)
{
    return wideWriteLock(lock, clock, Widened(time).get());
}

EXPORTED int pthread_rwlock_timedwrlock(pthread_rwlock_t* lock, const timespec* time)
{
    return pthread_rwlock_clockwrlock(lock, CLOCK_REALTIME, time);
}

EXPORTED int sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* time)
{
    return wideSemaphoreWait(semaphore, clock, Widened(time).get());
}

EXPORTED int sem_timedwait(sem_t* semaphore, const timespec* time)
{
    return sem_clockwait(semaphore, CLOCK_REALTIME, time);
}
