#include "tests/proof/process/machine.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <optional>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tests/proof/process/failing.h"
#include "tests/proof/process/real-call.h"

namespace __cxxabiv1
{
struct __cxa_eh_globals;
extern "C" __cxa_eh_globals* __cxa_get_globals() noexcept;
} // namespace __cxxabiv1

namespace proof::machine
{

namespace
{

constexpr size_t kStackSize = 256 * 1024;
constexpr size_t kMainStackSize = 8 * 1024 * 1024;
constexpr size_t kExceptionState = 16; // the caught exceptions and the number of those in flight

struct Fiber {
    ucontext_t context;
    void* (*body)(void*) = nullptr;
    void* argument = nullptr;
    bool isOver = false;
    bool isSleeping = false; // stands among the sleepers
    int error = 0;
    int depth = 0; // of the test's own code in it
    char exceptions[kExceptionState] = {};
};

using Queue = std::deque<Fiber*>;
using Sleepers = std::multimap<int64_t, Fiber*>;

struct Waiter {
    Fiber* fiber;
    std::optional<Sleepers::iterator> limit;
};

struct Machine {
    std::function<void()> idle;
    std::function<void(const std::string&)> note;
    int64_t now = 1000000 * kMillisecond;
    std::optional<int64_t> end; // of the time that passes before `idle` is called
    Threads threads = Threads::kLazy;
    Fiber main;
    Fiber* current = &main;
    Queue ready;
    Queue urgent; // the last one first: new threads and their makers, when new ones go first
    Sleepers sleepers;
    std::map<void*, Queue> mutexes;
    std::map<void*, std::deque<Waiter>> conditions;
    Queue hanging;
    Queue semaphoreQueue;
    int semaphore = 1;
    pthread_t lastThread = 1;
    std::vector<Fiber*> spare;
    bool failsThread = false;
    bool failsSemaphore = false;
};

Machine* machine = nullptr; // none before the start

void switchTo(Fiber* next)
{
    Fiber* const self = machine->current;
    self->error = errno;
    self->depth = failing::depth();
    memcpy(self->exceptions, __cxxabiv1::__cxa_get_globals(), kExceptionState);
    machine->current = next;
    memcpy(static_cast<void*>(__cxxabiv1::__cxa_get_globals()), next->exceptions, kExceptionState);
    failing::setDepth(next->depth);
    errno = next->error;
    swapcontext(&self->context, &next->context);
}

// Gives up the turn; whoever ends the wait puts the thread in a queue.
void block()
{
    if (machine->current == &machine->main) {
        fputs("the main thread of the daemon waits for a thread that waits\n", stderr);
        abort();
    }
    switchTo(&machine->main);
}

void body()
{
    Fiber* const self = machine->current;
    self->body(self->argument);
    self->isOver = true;
    switchTo(&machine->main);
}

// On the main thread alone.
void run(Fiber* fiber)
{
    switchTo(fiber);
    if (fiber->isOver) {
        machine->spare.push_back(fiber);
    }
}

bool runNext()
{
    Queue& urgent = machine->urgent;
    if (!urgent.empty()) {
        Fiber* const next = urgent.back();
        urgent.pop_back();
        run(next);
        return true;
    }
    if (machine->threads == Threads::kStalled || machine->ready.empty()) {
        return false;
    }
    Fiber* const next = machine->ready.front();
    machine->ready.pop_front();
    run(next);
    return true;
}

void setNow(int64_t time)
{
    machine->now = time;
    Sleepers& sleepers = machine->sleepers;
    while (!sleepers.empty() && sleepers.begin()->first <= time) {
        sleepers.begin()->second->isSleeping = false;
        machine->ready.push_back(sleepers.begin()->second);
        sleepers.erase(sleepers.begin());
    }
}

void giveStack(ucontext_t& context, size_t size)
{
    getcontext(&context);
    context.uc_stack.ss_sp =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    context.uc_stack.ss_size = size;
    context.uc_link = nullptr;
}

Fiber* makeFiber(void* (*start)(void*), void* argument)
{
    Fiber* fiber = nullptr;
    if (!machine->spare.empty()) {
        fiber = machine->spare.back();
        machine->spare.pop_back();
    } else {
        fiber = new Fiber;
        giveStack(fiber->context, kStackSize);
    }
    fiber->body = start;
    fiber->argument = argument;
    fiber->isOver = false;
    fiber->depth = 0;
    memset(fiber->exceptions, 0, kExceptionState);
    makecontext(&fiber->context, body, 0);
    return fiber;
}

void startThread(Fiber* fiber)
{
    if (machine->threads != Threads::kEager) {
        machine->ready.push_back(fiber);
        return;
    }
    if (machine->current != &machine->main) {
        machine->urgent.push_back(machine->current);
        machine->urgent.push_back(fiber);
        block();
        return;
    }
    machine->urgent.push_back(fiber);
    while (!machine->urgent.empty()) {
        runNext();
    }
}

void wakeFirst(Queue& queue)
{
    if (!queue.empty()) {
        machine->ready.push_back(queue.front());
        queue.pop_front();
    }
}

int lockMutex(pthread_mutex_t* mutex)
{
    const failing::Aside aside;
    static auto* const tryLock = real(&pthread_mutex_trylock, "pthread_mutex_trylock");
    while (true) {
        const int result = tryLock(mutex);
        if (result != EBUSY) {
            return result;
        }
        machine->mutexes[mutex].push_back(machine->current);
        block();
    }
}

Sleepers::iterator sleepUntil(int64_t time)
{
    machine->current->isSleeping = true;
    return machine->sleepers.emplace(time, machine->current);
}

// Waits until woken, or `deadline`. 0 or ETIMEDOUT.
int waitFor(pthread_cond_t* condition, pthread_mutex_t* mutex, std::optional<int64_t> deadline)
{
    const failing::Aside aside;
    auto& waiters = machine->conditions[condition];
    Fiber* const self = machine->current;
    waiters.push_back({self, deadline ? std::optional(sleepUntil(*deadline)) : std::nullopt});
    pthread_mutex_unlock(mutex);
    block();
    const auto mine =
        std::find_if(waiters.begin(), waiters.end(), [self](const Waiter& one) { return one.fiber == self; });
    const bool isLate = mine != waiters.end(); // whoever signals takes it off
    if (isLate) {
        waiters.erase(mine);
    }
    lockMutex(mutex);
    return isLate ? ETIMEDOUT : 0;
}

void wakeWaiter(pthread_cond_t* condition)
{
    const failing::Aside aside;
    const auto waiters = machine->conditions.find(condition);
    if (waiters == machine->conditions.end() || waiters->second.empty()) {
        return;
    }
    const Waiter first = waiters->second.front();
    waiters->second.pop_front();
    if (first.limit && !first.fiber->isSleeping) {
        return; // its limit has come first, and it is ready
    }
    if (first.limit) {
        first.fiber->isSleeping = false;
        machine->sleepers.erase(*first.limit);
    }
    machine->ready.push_back(first.fiber);
}

int64_t nanoseconds(const timespec& time)
{
    return int64_t{time.tv_sec} * 1000 * kMillisecond + time.tv_nsec;
}

// The main loop waits: others have their turns, time passes, and the test does its next thing.
int pollOnMain(pollfd* fds, nfds_t count, int timeout)
{
    static auto* const realPoll = real(&poll, "poll");
    const failing::Aside aside; // those that have their turns are not
    const int64_t limit = timeout < 0 ? INT64_MAX : machine->now + timeout * kMillisecond;
    while (true) {
        while (runNext()) {
        }
        const int result = realPoll(fds, count, 0);
        if (result != 0 || machine->now >= limit) {
            return result;
        }
        if (!machine->end) {
            machine->idle();
            continue;
        }
        const Sleepers& sleepers = machine->sleepers;
        const int64_t next = std::min(limit, sleepers.empty() ? INT64_MAX : sleepers.begin()->first);
        if (next > *machine->end) {
            setNow(*machine->end);
            machine->end.reset();
        } else {
            setNow(next);
        }
    }
}

} // namespace

void start(std::function<void()> idle, std::function<void(const std::string&)> note)
{
    machine = new Machine;
    machine->idle = std::move(idle);
    machine->note = std::move(note);
}

bool isStarted()
{
    return machine != nullptr;
}

void runMain(void (*body)())
{
    ucontext_t context;
    giveStack(context, kMainStackSize);
    makecontext(&context, body, 0);
    setcontext(&context);
    abort();
}

void setThreads(Threads mode)
{
    machine->threads = mode;
}

void advance(int64_t duration)
{
    machine->end = machine->now + duration;
}

void jumpToSecond(int seconds)
{
    const int64_t second = 1000 * kMillisecond;
    setNow((machine->now / second + seconds) * second);
}

int semaphoreValue()
{
    return machine->semaphore;
}

void failThread()
{
    machine->failsThread = true;
}

void failSemaphore()
{
    machine->failsSemaphore = true;
}

void sleep(int64_t duration)
{
    const failing::Aside aside;
    sleepUntil(machine->now + duration);
    block();
}

void hang()
{
    machine->hanging.push_back(machine->current);
    block();
}

void freeHanging()
{
    machine->ready.insert(machine->ready.end(), machine->hanging.begin(), machine->hanging.end());
    machine->hanging.clear();
}

} // namespace proof::machine

// ---- Calls of the C library ----

using namespace proof::machine; // NOLINT: what follows are its other faces
using proof::real;

extern "C" {

int clock_gettime(clockid_t clock, timespec* time)
{
    if (machine == nullptr) {
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    }
    time->tv_sec = machine->now / (1000 * kMillisecond);
    time->tv_nsec = machine->now % (1000 * kMillisecond);
    return 0;
}

int poll(pollfd* fds, nfds_t count, int timeout)
{
    if (machine != nullptr && machine->current == &machine->main) {
        return pollOnMain(fds, count, timeout);
    }
    return real(&poll, "poll")(fds, count, timeout);
}

int nanosleep(const timespec* duration, timespec* left)
{
    if (machine == nullptr) {
        return real(&nanosleep, "nanosleep")(duration, left);
    }
    proof::machine::sleep(nanoseconds(*duration));
    return 0;
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* time, timespec* left)
{
    if (machine == nullptr) {
        return real(&clock_nanosleep, "clock_nanosleep")(clock, flags, time, left);
    }
    proof::machine::sleep(nanoseconds(*time) - ((flags & TIMER_ABSTIME) != 0 ? machine->now : 0));
    return 0;
}

unsigned int sleep(unsigned int seconds)
{
    const timespec duration{static_cast<time_t>(seconds), 0};
    return static_cast<unsigned int>(nanosleep(&duration, nullptr));
}

int usleep(useconds_t microseconds)
{
    const timespec duration{static_cast<time_t>(microseconds / 1000000), (microseconds % 1000000) * 1000L};
    return nanosleep(&duration, nullptr);
}

int pthread_create(pthread_t* id, const pthread_attr_t* attributes, void* (*start)(void*), void* argument)
{
    if (machine == nullptr) {
        return real(&pthread_create, "pthread_create")(id, attributes, start, argument);
    }
    static constexpr proof::failing::Result results[] = {{"EAGAIN", EAGAIN, 0}};
    if (std::exchange(machine->failsThread, false) ||
        proof::failing::ask("pthread_create", results) != nullptr) {
        return EAGAIN;
    }
    const proof::failing::Aside aside;
    *id = ++machine->lastThread;
    startThread(makeFiber(start, argument));
    return 0;
}

int pthread_detach(pthread_t id)
{
    return machine == nullptr ? real(&pthread_detach, "pthread_detach")(id) : 0;
}

int pthread_mutex_lock(pthread_mutex_t* mutex)
{
    static auto* const realLock = real(&pthread_mutex_lock, "pthread_mutex_lock");
    return machine == nullptr ? realLock(mutex) : lockMutex(mutex);
}

int pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    static auto* const realUnlock = real(&pthread_mutex_unlock, "pthread_mutex_unlock");
    const int result = realUnlock(mutex);
    const proof::failing::Aside aside;
    if (machine != nullptr && !machine->mutexes.empty()) {
        const auto waiting = machine->mutexes.find(mutex);
        if (waiting != machine->mutexes.end()) {
            wakeFirst(waiting->second);
        }
    }
    return result;
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    return machine != nullptr ? waitFor(condition, mutex, std::nullopt)
                              : real(&pthread_cond_wait, "pthread_cond_wait")(condition, mutex);
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline)
{
    return machine != nullptr
               ? waitFor(condition, mutex, nanoseconds(*deadline))
               : real(&pthread_cond_timedwait, "pthread_cond_timedwait")(condition, mutex, deadline);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* deadline)
{
    return machine != nullptr
               ? waitFor(condition, mutex, nanoseconds(*deadline))
               : real(&pthread_cond_clockwait, "pthread_cond_clockwait")(condition, mutex, clock, deadline);
}

int pthread_cond_signal(pthread_cond_t* condition)
{
    if (machine == nullptr) {
        return real(&pthread_cond_signal, "pthread_cond_signal")(condition);
    }
    wakeWaiter(condition);
    return 0;
}

int pthread_cond_broadcast(pthread_cond_t* condition)
{
    const proof::failing::Aside aside;
    if (machine == nullptr) {
        return real(&pthread_cond_broadcast, "pthread_cond_broadcast")(condition);
    }
    for (size_t left = machine->conditions[condition].size(); left > 0; --left) {
        wakeWaiter(condition);
    }
    return 0;
}

// The one semaphore of the set is this process's alone: runs side by side do not meet in it.

sem_t* sem_open(const char* name, int flags, ...)
{
    const proof::failing::Aside aside;
    static sem_t handle;
    va_list arguments;
    va_start(arguments, flags);
    const unsigned int mode = va_arg(arguments, unsigned int);
    const unsigned int value = va_arg(arguments, unsigned int);
    va_end(arguments);
    char text[100];
    snprintf(text, sizeof text, "sem_open(%s, 0%o, %u)", name, mode, value);
    machine->note(text);
    if (std::exchange(machine->failsSemaphore, false)) {
        errno = EMFILE;
        return SEM_FAILED;
    }
    return &handle;
}

int sem_close(sem_t*)
{
    const proof::failing::Aside aside;
    machine->note("sem_close()");
    return 0;
}

int sem_wait(sem_t*)
{
    const proof::failing::Aside aside;
    while (machine->semaphore == 0) {
        machine->semaphoreQueue.push_back(machine->current);
        block();
    }
    --machine->semaphore;
    machine->note("sem_wait()");
    return 0;
}

int sem_post(sem_t*)
{
    const proof::failing::Aside aside;
    ++machine->semaphore;
    machine->note("sem_post()");
    wakeFirst(machine->semaphoreQueue);
    return 0;
}

} // extern "C"
