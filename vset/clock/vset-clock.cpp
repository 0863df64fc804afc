// libvset-clock.so: programs that are started with it live on their set's clock.
//
// It stands in front of the C library's calls that read a clock or wait for a time. Clocks are computed from
// the page that `vset clock` writes. A jump or another rate takes effect at once for those who are waiting
// already: who sleeps, polls, selects or waits on a futex waits for a change of the page as well. Where the
// wait is the C library's own affair (conditions, semaphores, locks) it is cut into slices of the PC's time,
// and after each the clock is read again.
//
// Times have 64 bits here. A C library that had times of 32 bits first has each such call twice: this file
// stands in front of those with 64, vset-clock-narrow.cpp of the others.
//
// All threads call in here at any time, also before main and from other libraries' constructors: there is no
// lock and no allocation, and what is set up lazily is set up atomically.

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <optional>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include "vset/clock/mapped-page.h"

#define EXPORTED extern "C" __attribute__((visibility("default")))

namespace
{

constexpr int64_t kMillisecond = 1000000;
constexpr int64_t kSecond = 1000000000;
constexpr int64_t kSlice =
    20 * kMillisecond; // of the PC's time, the longest wait without looking at the clock
constexpr int64_t kForever = INT64_MAX;
constexpr int64_t kLongest = kForever / 16; // of one wait; the end of it must not overflow

// ---- The C library's own functions ----

// The conditions of the oldest C library live on under their names without a version; the others are meant.
void* findReal(const char* name)
{
#ifdef __x86_64__
    if (void* found = dlvsym(RTLD_NEXT, name, "GLIBC_2.3.2")) {
        return found;
    }
#endif
    return dlsym(RTLD_NEXT, name);
}

// Found at the first call. Two threads may both look it up; they find the same.
template <typename Function>
class Real
{
public:
    explicit constexpr Real(const char* name) : name_(name) {}

    template <typename... Arguments>
    auto operator()(Arguments... arguments)
    {
        void* found = address_.load(std::memory_order_relaxed);
        if (found == nullptr) {
            found = findReal(name_);
            address_.store(found, std::memory_order_relaxed);
        }
        return reinterpret_cast<Function*>(found)(arguments...);
    }

private:
    const char* name_;
    std::atomic<void*> address_{nullptr};
};

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored                                                                               \
    "-Wignored-attributes" // a function's type as it is declared, attributes and all
#endif
#define REAL_AS(function, name) Real<decltype(::function)> real_##function(name)
#define REAL(function) REAL_AS(function, #function)
#if __TIMESIZE == 32
#define REAL_WIDE(function, name) REAL_AS(function, name)
#define PPOLL_CHECKED __ppoll64_chk
#else
#define REAL_WIDE(function, name) REAL(function)
#define PPOLL_CHECKED __ppoll_chk
#endif
static_assert(sizeof(time_t) == 8, "compile it with _TIME_BITS=64");
REAL_WIDE(clock_gettime, "__clock_gettime64");
REAL_WIDE(clock_nanosleep, "__clock_nanosleep_time64");
REAL_WIDE(ppoll, "__ppoll64");
REAL_WIDE(pselect, "__pselect64");
REAL(epoll_pwait);
REAL_WIDE(pthread_cond_clockwait, "__pthread_cond_clockwait64");
REAL(pthread_cond_signal);
REAL(pthread_cond_broadcast);
REAL_WIDE(pthread_mutex_clocklock, "__pthread_mutex_clocklock64");
REAL_WIDE(pthread_rwlock_clockrdlock, "__pthread_rwlock_clockrdlock64");
REAL_WIDE(pthread_rwlock_clockwrlock, "__pthread_rwlock_clockwrlock64");
REAL_WIDE(sem_clockwait, "__sem_clockwait64");
REAL(syscall);

// The kernel's wait on a word of memory, with a time of 64 bits.
#ifdef SYS_futex_time64
constexpr long kFutex = SYS_futex_time64;
#else
constexpr long kFutex = SYS_futex;
#endif

// ---- Clocks ----

int64_t fromTimespec(const timespec& time)
{
    if (time.tv_sec > kForever / kSecond - 1) {
        return kForever;
    }
    return time.tv_sec * kSecond + time.tv_nsec;
}

timespec toTimespec(int64_t time)
{
    timespec result{};
    result.tv_sec = time / kSecond;
    result.tv_nsec = time % kSecond;
    if (result.tv_nsec < 0) {
        result.tv_nsec += kSecond;
        --result.tv_sec;
    }
    return result;
}

int64_t hostNow(clockid_t clock)
{
    timespec now{};
    real_clock_gettime(clock, &now);
    return fromTimespec(now);
}

// What is done on the way to an answer must not be taken for the answer's own error.
class KeptErrno
{
public:
    KeptErrno() = default;
    ~KeptErrno() { errno = value_; }
    KeptErrno(const KeptErrno&) = delete;
    KeptErrno& operator=(const KeptErrno&) = delete;

private:
    int value_ = errno;
};

std::atomic<const vset::ClockPage*> mappedPage{nullptr};
std::atomic<bool> pageSought{false};

// The set's clock, or null where there is none: then everything is the PC's. Mapped once and never unmapped;
// when two threads come first at once, one mapping too many stays, which does no harm.
const vset::ClockPage* clockPage()
{
    if (pageSought.load(std::memory_order_acquire)) {
        return mappedPage.load(std::memory_order_relaxed);
    }
    const KeptErrno kept;
    mappedPage.store(vset::mapClockPage(vset::kClockPage), std::memory_order_relaxed);
    pageSought.store(true, std::memory_order_release);
    return mappedPage.load(std::memory_order_relaxed);
}

enum class Kind { kOther, kMonotonic, kWall };

Kind kindOf(clockid_t clock)
{
    switch (clock) {
    case CLOCK_MONOTONIC:
    case CLOCK_MONOTONIC_RAW:
    case CLOCK_MONOTONIC_COARSE:
    case CLOCK_BOOTTIME:
    case CLOCK_BOOTTIME_ALARM:
        return Kind::kMonotonic;
    case CLOCK_REALTIME:
    case CLOCK_REALTIME_COARSE:
    case CLOCK_REALTIME_ALARM:
    case CLOCK_TAI:
        return Kind::kWall;
    default:
        return Kind::kOther; // a processor-time clock
    }
}

int64_t setNow(const vset::ClockPage& page, Kind kind)
{
    const vset::ClockState state = vset::readClock(page);
    const int64_t monotonic = state.monotonicAt(hostNow(CLOCK_MONOTONIC));
    return kind == Kind::kWall ? monotonic + state.wallOffset : monotonic;
}

// ---- Waiting ----

// A moment on the set's clock that somebody waits for.
class Deadline
{
public:
    Deadline(const vset::ClockPage& page, Kind kind, int64_t at) : page_(page), kind_(kind), at_(at) {}
    static Deadline after(const vset::ClockPage& page, int64_t duration)
    {
        const int64_t now = setNow(page, Kind::kMonotonic);
        return {page, Kind::kMonotonic, duration > kForever - now ? kForever : now + duration};
    }

    // Nanoseconds of the set's time; 0 when the moment has come.
    int64_t remaining() const
    {
        const int64_t now = setNow(page_, kind_);
        return at_ > now ? at_ - now : 0;
    }

    // How long to wait in the PC's time, at the set's present rate but no longer than `most`.
    int64_t real(int64_t most) const
    {
        const double real = static_cast<double>(remaining()) / vset::readClock(page_).rate;
        return real >= static_cast<double>(most) ? most : static_cast<int64_t>(real);
    }
    // The same before looking at the clock again, for who is not told of its change.
    int64_t slice() const { return real(kSlice); }

    // The ends of both on the PC's monotonic clock.
    timespec realEnd() const { return toTimespec(hostNow(CLOCK_MONOTONIC) + real(kLongest)); }
    timespec sliceEnd() const { return toTimespec(hostNow(CLOCK_MONOTONIC) + slice()); }

    const vset::ClockPage& page() const { return page_; }

private:
    const vset::ClockPage& page_;
    Kind kind_;
    int64_t at_;
};

bool isValid(const timespec& time)
{
    return time.tv_sec >= 0 && time.tv_nsec >= 0 && time.tv_nsec < kSecond;
}

// Repeats `wait`, which takes the end of a slice as a timespec and returns 0 or an error number, until it
// has another result than ETIMEDOUT or the set's clock has reached the deadline.
template <typename Wait>
int waitInSlices(const Deadline& deadline, Wait wait)
{
    const KeptErrno kept;
    while (true) {
        const bool last = deadline.remaining() == 0;
        const timespec end = deadline.sliceEnd();
        const int result = wait(end);
        if (result != ETIMEDOUT || last) {
            return result;
        }
    }
}

// The same for calls that say 0 when nothing happened in the time given to them.
template <typename Wait>
int waitForEvents(const Deadline& deadline, Wait wait)
{
    while (true) {
        const bool last = deadline.remaining() == 0;
        const timespec slice = toTimespec(deadline.slice());
        const int result = wait(slice);
        if (result != 0 || last) {
            return result;
        }
    }
}

// The writer wakes who waits on this word of the page. It has to be read before the clock is.
const void* changeWord(const vset::ClockPage& page)
{
    return &page.sequence;
}

int sleepUntil(const Deadline& deadline)
{
    const KeptErrno kept;
    while (true) {
        const uint32_t sequence = deadline.page().sequence.load();
        if (deadline.remaining() == 0) {
            return 0;
        }
        const timespec end = deadline.realEnd();
        const long result =
            real_syscall(kFutex, changeWord(deadline.page()), FUTEX_WAIT_BITSET, static_cast<long>(sequence),
                         &end, nullptr, static_cast<long>(FUTEX_BITSET_MATCH_ANY));
        if (result == 0 || errno == ETIMEDOUT || errno == EAGAIN) {
            continue;
        }
        if (errno == EINTR) {
            return EINTR;
        }
        const timespec slice = deadline.sliceEnd(); // a kernel that refuses to wait on the page
        if (const int error = real_clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &slice, nullptr);
            error != 0) {
            return error;
        }
    }
}

int sleepFor(const vset::ClockPage& page, int64_t duration, timespec* remain)
{
    const Deadline deadline = Deadline::after(page, duration);
    const int error = sleepUntil(deadline);
    if (error != 0 && remain != nullptr) {
        *remain = toTimespec(deadline.remaining());
    }
    return error;
}

int failWith(int error)
{
    errno = error;
    return -1;
}

} // namespace

// ---- Reading a clock ----

EXPORTED int clock_gettime(clockid_t clock, timespec* time)
{
    const vset::ClockPage* page = clockPage();
    const Kind kind = kindOf(clock);
    if (page == nullptr || kind == Kind::kOther) {
        return real_clock_gettime(clock, time);
    }
    *time = toTimespec(setNow(*page, kind));
    return 0;
}

EXPORTED int gettimeofday(timeval* time, void* /*zone*/)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    *time = {now.tv_sec, now.tv_nsec / 1000};
    return 0;
}

EXPORTED time_t time(time_t* result)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
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
    const vset::ClockPage* page = clockPage();
    const Kind kind = kindOf(clock);
    if (page == nullptr || kind == Kind::kOther || !isValid(*request)) {
        return real_clock_nanosleep(clock, flags, request, remain);
    }
    if ((flags & TIMER_ABSTIME) != 0) {
        return sleepUntil({*page, kind, fromTimespec(*request)});
    }
    return sleepFor(*page, fromTimespec(*request), remain);
}

EXPORTED int nanosleep(const timespec* request, timespec* remain)
{
    const int error = clock_nanosleep(CLOCK_MONOTONIC, 0, request, remain);
    return error == 0 ? 0 : failWith(error);
}

EXPORTED int usleep(useconds_t duration)
{
    const timespec request = toTimespec(int64_t{duration} * 1000);
    return nanosleep(&request, nullptr);
}

EXPORTED unsigned int sleep(unsigned int seconds)
{
    timespec remain{static_cast<time_t>(seconds), 0};
    if (nanosleep(&remain, &remain) == 0) {
        return 0;
    }
    return static_cast<unsigned int>(remain.tv_sec + (remain.tv_nsec >= kSecond / 2 ? 1 : 0));
}

// ---- Waiting for descriptors ----

namespace
{

constexpr nfds_t kMostDescriptors = 64; // more are waited for in slices

// A descriptor of this thread that becomes readable when the page has changed. The process it belongs to is
// kept as well: a forked process must not read what is its parent's.
class ChangeDescriptor
{
public:
    // -1 when there is none to be had: then one waits in slices.
    static int get()
    {
        const KeptErrno kept;
        pthread_once(&once_, [] { hasKey_ = pthread_key_create(&key_, closeKept) == 0; });
        return hasKey_ ? find() : -1;
    }

    static void drain(int descriptor)
    {
        char events[4096];
        while (read(descriptor, events, sizeof events) > 0) {
        }
    }

private:
    static int find()
    {
        void* const kept = pthread_getspecific(key_);
        const pid_t process = getpid();
        if (kept != nullptr && owner_ == process && isInotify(numberOf(kept))) {
            return numberOf(kept);
        }
        if (kept != nullptr) {
            closeKept(kept);
        }
        const int made = make();
        owner_ = process;
        pthread_setspecific(key_, reinterpret_cast<void*>(static_cast<intptr_t>(made) + 1));
        return made;
    }

    static int make()
    {
        const int descriptor = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (descriptor < 0 || inotify_add_watch(descriptor, vset::kClockPage, IN_ATTRIB) >= 0) {
            return descriptor;
        }
        close(descriptor);
        return -1;
    }

    static int numberOf(void* kept) { return static_cast<int>(reinterpret_cast<intptr_t>(kept)) - 1; }

    // A program may close what it has not opened, and get the number for something of its own.
    static bool isInotify(int descriptor)
    {
        constexpr char kInotify[] = "anon_inode:inotify";
        char path[64];
        char target[sizeof kInotify];
        snprintf(path, sizeof path, "/proc/self/fd/%d", descriptor);
        return readlink(path, target, sizeof target) == sizeof kInotify - 1 &&
               __builtin_memcmp(target, kInotify, sizeof kInotify - 1) == 0;
    }

    static void closeKept(void* kept)
    {
        const int descriptor = numberOf(kept);
        if (isInotify(descriptor)) {
            close(descriptor);
        }
    }

    static inline pthread_once_t once_ = PTHREAD_ONCE_INIT;
    static inline pthread_key_t key_{};
    static inline bool hasKey_ = false;
    // In the room that each thread has from its beginning: finding it allocates nothing.
    __attribute__((tls_model("initial-exec"))) static inline thread_local pid_t owner_ = 0;
};

// -1 for a wait that ends before it is worth one.
int changeDescriptorFor(const Deadline& deadline)
{
    return deadline.slice() == kSlice ? ChangeDescriptor::get() : -1;
}

int pollUntil(const Deadline& deadline, pollfd* descriptors, nfds_t count, int change, const sigset_t* mask)
{
    pollfd all[kMostDescriptors + 1];
    for (nfds_t index = 0; index < count; ++index) {
        all[index] = descriptors[index];
    }
    all[count] = {change, POLLIN, 0};
    while (true) {
        const timespec wait = toTimespec(deadline.real(kLongest));
        int result = real_ppoll(all, count + 1, &wait, mask);
        if (result < 0) {
            return result;
        }
        if (all[count].revents != 0) {
            --result;
            ChangeDescriptor::drain(change);
        }
        if (result == 0 && deadline.remaining() > 0) {
            continue;
        }
        for (nfds_t index = 0; index < count; ++index) {
            descriptors[index].revents = all[index].revents;
        }
        return result;
    }
}

} // namespace

EXPORTED int ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* mask)
{
    const vset::ClockPage* page = clockPage();
    if (page == nullptr || timeout == nullptr || !isValid(*timeout)) {
        return real_ppoll(descriptors, count, timeout, mask);
    }
    const Deadline deadline = Deadline::after(*page, fromTimespec(*timeout));
    const int change = count <= kMostDescriptors ? changeDescriptorFor(deadline) : -1;
    if (change >= 0) {
        return pollUntil(deadline, descriptors, count, change, mask);
    }
    return waitForEvents(deadline,
                         [&](const timespec& slice) { return real_ppoll(descriptors, count, &slice, mask); });
}

EXPORTED int poll(pollfd* descriptors, nfds_t count, int timeoutMs)
{
    const timespec timeout = toTimespec(timeoutMs * kMillisecond);
    return ppoll(descriptors, count, timeoutMs < 0 ? nullptr : &timeout, nullptr);
}

// What _FORTIFY_SOURCE makes of the two.
EXPORTED int __poll_chk(pollfd* descriptors, nfds_t count, int timeoutMs, size_t size)
{
    if (size / sizeof(pollfd) < count) {
        __builtin_trap();
    }
    return poll(descriptors, count, timeoutMs);
}

EXPORTED int PPOLL_CHECKED(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* mask,
                           size_t size)
{
    if (size / sizeof(pollfd) < count) {
        __builtin_trap();
    }
    return ppoll(descriptors, count, timeout, mask);
}

namespace
{

// The sets of a select: arrays of `count` bits, which may be longer or shorter than an fd_set. They come back
// empty from a wait in which nothing happened, so each wait starts with what was asked for.
class SelectSets
{
public:
    SelectSets(int count, fd_set* reading, fd_set* writing, fd_set* failing)
        : count_(count), sets_{reading, writing, failing}
    {
        for (int index = 0; index < 3; ++index) {
            FD_ZERO(&wanted_[index]);
            for (int descriptor = 0; sets_[index] != nullptr && descriptor < count; ++descriptor) {
                if (FD_ISSET(descriptor, sets_[index])) {
                    FD_SET(descriptor, &wanted_[index]);
                }
            }
        }
    }

    // As the call says it, but for `change`: that this descriptor is readable is not told.
    int wait(const timespec& time, const sigset_t* mask, int change)
    {
        fd_set found[3] = {wanted_[0], wanted_[1], wanted_[2]};
        fd_set* given[3];
        for (int index = 0; index < 3; ++index) {
            given[index] = sets_[index] != nullptr ? &found[index] : nullptr;
        }
        if (change >= 0) {
            FD_SET(change, &found[0]);
            given[0] = &found[0];
        }
        const int count = change >= count_ ? change + 1 : count_;
        int result = real_pselect(count, given[0], given[1], given[2], &time, mask);
        if (result < 0) {
            return result;
        }
        if (change >= 0 && FD_ISSET(change, &found[0])) {
            FD_CLR(change, &found[0]);
            ChangeDescriptor::drain(change);
            --result;
        }
        const size_t words = (static_cast<size_t>(count_) + kWordBits - 1) / kWordBits;
        for (int index = 0; index < 3; ++index) {
            if (sets_[index] != nullptr) {
                __builtin_memcpy(sets_[index], &found[index], words * sizeof(long));
            }
        }
        return result;
    }

private:
    static constexpr size_t kWordBits = 8 * sizeof(long);

    int count_;
    fd_set* sets_[3];
    fd_set wanted_[3];
};

} // namespace

EXPORTED int pselect(int count, fd_set* reading, fd_set* writing, fd_set* failing, const timespec* timeout,
                     const sigset_t* mask)
{
    const vset::ClockPage* page = clockPage();
    const bool isUsual = count >= 0 && count <= FD_SETSIZE;
    if (page == nullptr || timeout == nullptr || !isValid(*timeout) || !isUsual) {
        return real_pselect(count, reading, writing, failing, timeout, mask);
    }
    SelectSets sets(count, reading, writing, failing);
    const Deadline deadline = Deadline::after(*page, fromTimespec(*timeout));
    const int change = changeDescriptorFor(deadline);
    if (change < 0 || change >= FD_SETSIZE) {
        return waitForEvents(deadline, [&](const timespec& slice) { return sets.wait(slice, mask, -1); });
    }
    while (true) {
        const int result = sets.wait(toTimespec(deadline.real(kLongest)), mask, change);
        if (result != 0 || deadline.remaining() == 0) {
            return result;
        }
    }
}

EXPORTED int select(int count, fd_set* reading, fd_set* writing, fd_set* failing, timeval* timeout)
{
    if (timeout == nullptr) {
        return pselect(count, reading, writing, failing, nullptr, nullptr);
    }
    if (timeout->tv_sec < 0 || timeout->tv_usec < 0) {
        return failWith(EINVAL);
    }
    timespec duration = toTimespec(timeout->tv_usec % 1000000 * 1000);
    duration.tv_sec = timeout->tv_sec + timeout->tv_usec / 1000000;
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    const int result = pselect(count, reading, writing, failing, &duration, nullptr);
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    const int64_t left = fromTimespec(duration) - (fromTimespec(end) - fromTimespec(start));
    const timespec remaining = toTimespec(left > 0 ? left : 0);
    *timeout = {remaining.tv_sec, remaining.tv_nsec / 1000}; // as Linux does
    return result;
}

namespace
{

// A set of descriptors can be polled like one of them.
int waitOnEpoll(const Deadline& deadline, int change, int epoll, epoll_event* events, int size,
                const sigset_t* mask)
{
    while (true) {
        const int result = real_epoll_pwait(epoll, events, size, 0, mask);
        if (result != 0) {
            return result;
        }
        pollfd waiting{epoll, POLLIN, 0};
        const int ready = pollUntil(deadline, &waiting, 1, change, mask);
        if (ready <= 0) {
            return ready;
        }
    }
}

} // namespace

EXPORTED int epoll_pwait(int epoll, epoll_event* events, int size, int timeoutMs, const sigset_t* mask)
{
    const vset::ClockPage* page = clockPage();
    if (page == nullptr || timeoutMs <= 0) {
        return real_epoll_pwait(epoll, events, size, timeoutMs, mask);
    }
    const Deadline deadline = Deadline::after(*page, timeoutMs * kMillisecond);
    const int change = changeDescriptorFor(deadline);
    if (change >= 0) {
        return waitOnEpoll(deadline, change, epoll, events, size, mask);
    }
    return waitForEvents(deadline, [&](const timespec& slice) {
        // Rounded up, as the call has only milliseconds: otherwise the last one would be spent polling.
        const int64_t milliseconds = (fromTimespec(slice) + kMillisecond - 1) / kMillisecond;
        return real_epoll_pwait(epoll, events, size, static_cast<int>(milliseconds), mask);
    });
}

EXPORTED int epoll_wait(int epoll, epoll_event* events, int size, int timeoutMs)
{
    return epoll_pwait(epoll, events, size, timeoutMs, nullptr);
}

// ---- Conditions ----

namespace
{

// A signal that is sent between the end of a slice and the next one would be lost, and waking the caller
// after every slice would show as wake-ups without a reason. So every signal is also counted, by the address
// of its condition; a waiter that sees the count moved since it came returns as woken.
constexpr size_t kCounters = 4096; // conditions that share one only risk a wake-up without a reason
std::atomic<uint32_t> signalCounts[kCounters];

std::atomic<uint32_t>& signalCount(const pthread_cond_t* condition)
{
    const auto address = reinterpret_cast<uintptr_t>(condition) / alignof(pthread_cond_t);
    return signalCounts[(address ^ address / kCounters) % kCounters];
}

int waitOnCondition(pthread_cond_t* condition, pthread_mutex_t* mutex, const Deadline& deadline)
{
    const std::atomic<uint32_t>& count = signalCount(condition);
    const uint32_t atStart = count.load();
    return waitInSlices(deadline, [&](const timespec& end) {
        const int result = real_pthread_cond_clockwait(condition, mutex, CLOCK_MONOTONIC, &end);
        return result == ETIMEDOUT && count.load() != atStart ? 0 : result;
    });
}

// The clock that a condition was initialised for is known to the C library alone. This bit has had its place
// since conditions were rewritten (2.25).
Kind clockOf(const pthread_cond_t* condition)
{
    constexpr unsigned int kMonotonicFlag = 2;
    return (condition->__data.__wrefs & kMonotonicFlag) != 0 ? Kind::kMonotonic : Kind::kWall;
}

} // namespace

EXPORTED int pthread_cond_signal(pthread_cond_t* condition)
{
    ++signalCount(condition);
    return real_pthread_cond_signal(condition);
}

EXPORTED int pthread_cond_broadcast(pthread_cond_t* condition)
{
    ++signalCount(condition);
    return real_pthread_cond_broadcast(condition);
}

EXPORTED int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                    const timespec* time)
{
    const vset::ClockPage* page = clockPage();
    if (page == nullptr || kindOf(clock) == Kind::kOther || !isValid(*time)) {
        return real_pthread_cond_clockwait(condition, mutex, clock, time);
    }
    return waitOnCondition(condition, mutex, {*page, kindOf(clock), fromTimespec(*time)});
}

EXPORTED int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* time)
{
    const clockid_t clock = clockOf(condition) == Kind::kMonotonic ? CLOCK_MONOTONIC : CLOCK_REALTIME;
    return pthread_cond_clockwait(condition, mutex, clock, time);
}

// ---- Locks and semaphores ----

namespace
{

// All of the form "object, clock, time".
template <typename Lock, typename Object>
int lockInSlices(Lock& lock, Object* object, clockid_t clock, const timespec* time)
{
    const vset::ClockPage* page = clockPage();
    if (page == nullptr || kindOf(clock) == Kind::kOther || !isValid(*time)) {
        return lock(object, clock, time);
    }
    const Deadline deadline(*page, kindOf(clock), fromTimespec(*time));
    return waitInSlices(deadline, [&](const timespec& end) { return lock(object, CLOCK_MONOTONIC, &end); });
}

} // namespace

EXPORTED int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const timespec* time)
{
    return lockInSlices(real_pthread_mutex_clocklock, mutex, clock, time);
}

EXPORTED int pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* time)
{
    return pthread_mutex_clocklock(mutex, CLOCK_REALTIME, time);
}

EXPORTED int pthread_rwlock_clockrdlock(pthread_rwlock_t* lock, clockid_t clock, const timespec* time)
{
    return lockInSlices(real_pthread_rwlock_clockrdlock, lock, clock, time);
}

EXPORTED int pthread_rwlock_timedrdlock(pthread_rwlock_t* lock, const timespec* time)
{
    return pthread_rwlock_clockrdlock(lock, CLOCK_REALTIME, time);
}

EXPORTED int pthread_rwlock_clockwrlock(pthread_rwlock_t* lock, clockid_t clock, const timespec* time)
{
    return lockInSlices(real_pthread_rwlock_clockwrlock, lock, clock, time);
}

EXPORTED int pthread_rwlock_timedwrlock(pthread_rwlock_t* lock, const timespec* time)
{
    return pthread_rwlock_clockwrlock(lock, CLOCK_REALTIME, time);
}

EXPORTED int sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* time)
{
    const auto wait = [](sem_t* object, clockid_t onClock, const timespec* until) {
        return real_sem_clockwait(object, onClock, until) == 0 ? 0 : errno;
    };
    const int error = lockInSlices(wait, semaphore, clock, time);
    return error == 0 ? 0 : failWith(error);
}

EXPORTED int sem_timedwait(sem_t* semaphore, const timespec* time)
{
    return sem_clockwait(semaphore, CLOCK_REALTIME, time);
}

// ---- Futexes ----

namespace
{

// Waits for the caller's word and the page's together; nothing where the kernel cannot (before 5.16).
std::optional<int> waitForBothWords(const long* arguments, const Deadline& deadline)
{
    const auto* word = reinterpret_cast<const std::atomic<uint32_t>*>(arguments[0]);
    const auto expected = static_cast<uint32_t>(arguments[2]);
    const auto own = static_cast<uint32_t>(arguments[1] & FUTEX_PRIVATE_FLAG);
    const KeptErrno kept;
    while (true) {
        const uint32_t sequence = deadline.page().sequence.load();
        const bool last = deadline.remaining() == 0;
        const timespec end = deadline.realEnd();
        futex_waitv waiters[2] = {
            {expected, reinterpret_cast<uintptr_t>(word), FUTEX_32 | own, 0},
            {sequence, reinterpret_cast<uintptr_t>(changeWord(deadline.page())), FUTEX_32, 0}};
        const long woken =
            real_syscall(SYS_futex_waitv, waiters, 2L, 0L, &end, static_cast<long>(CLOCK_MONOTONIC));
        if (woken >= 0) {
            if (woken == 0 || word->load() != expected) {
                return 0;
            }
            continue;
        }
        const int error = errno;
        if (error == ENOSYS || error == EPERM) {
            return std::nullopt;
        }
        const bool isOver = error != ETIMEDOUT || last;
        if (isOver && (error != EAGAIN || deadline.page().sequence.load() == sequence)) {
            return error;
        }
    }
}

// GLib's conditions and the C++ library's futures wait on a futex directly, through syscall().
long futexWait(const long* arguments, const Deadline& deadline)
{
    const long command = arguments[1] & FUTEX_CMD_MASK;
    const bool isForAll =
        command == FUTEX_WAIT || static_cast<uint32_t>(arguments[5]) == FUTEX_BITSET_MATCH_ANY;
    if (isForAll && deadline.slice() == kSlice) {
        if (const std::optional<int> error = waitForBothWords(arguments, deadline)) {
            return *error == 0 ? 0 : failWith(*error);
        }
    }
    const int error = waitInSlices(deadline, [&](const timespec& end) {
        const long match = command == FUTEX_WAIT ? static_cast<long>(FUTEX_BITSET_MATCH_ANY) : arguments[5];
        const long operation = FUTEX_WAIT_BITSET | (arguments[1] & FUTEX_PRIVATE_FLAG); // absolute, monotonic
        return real_syscall(kFutex, arguments[0], operation, arguments[2], &end, nullptr, match) < 0 ? errno
                                                                                                     : 0;
    });
    return error == 0 ? 0 : failWith(error);
}

bool isTimedFutexWait(long number, const long* arguments)
{
    const long command = arguments[1] & FUTEX_CMD_MASK;
    return (number == SYS_futex || number == kFutex) &&
           (command == FUTEX_WAIT || command == FUTEX_WAIT_BITSET) && arguments[3] != 0;
}

// Its time, which the older call has in two words of the processor.
timespec timeOfFutexWait(long number, const long* arguments)
{
    if (number != kFutex) {
        const auto* words = reinterpret_cast<const long*>(arguments[3]);
        timespec time{};
        time.tv_sec = words[0];
        time.tv_nsec = words[1];
        return time;
    }
    return *reinterpret_cast<const timespec*>(arguments[3]);
}

} // namespace

EXPORTED long syscall(long number, ...)
{
    long arguments[6]; // what a system call does not take is read from registers or stack and ignored
    va_list list;
    va_start(list, number);
    for (long& argument : arguments) {
        argument = va_arg(list, long);
    }
    va_end(list);
    const vset::ClockPage* page = isTimedFutexWait(number, arguments) ? clockPage() : nullptr;
    const timespec time = page != nullptr ? timeOfFutexWait(number, arguments) : timespec{};
    if (page == nullptr || !isValid(time)) {
        return real_syscall(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                            arguments[5]);
    }
    if ((arguments[1] & FUTEX_CMD_MASK) == FUTEX_WAIT) {
        return futexWait(arguments, Deadline::after(*page, fromTimespec(time)));
    }
    const Kind kind = (arguments[1] & FUTEX_CLOCK_REALTIME) != 0 ? Kind::kWall : Kind::kMonotonic;
    return futexWait(arguments, {*page, kind, fromTimespec(time)});
}
