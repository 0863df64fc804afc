#include "tools/fwctl/turn/update-turn.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <semaphore.h>
#include <thread>
#include <unistd.h>

#include "common/daemon/places.h"
#include "src/fw-update-common.h"
#include "tools/fwctl/commands/command.h"
#include "tools/fwctl/output.h"
#include "tools/fwctl/set-state.h"
#include "tools/fwctl/turn/turn-holder.h"

namespace fwctl
{

// ---- The semaphore, and the one that stands in for it ----

namespace
{
using common::places::kSemaphore;
std::atomic<sem_t*> privateSemaphore{nullptr};

struct CloseSemaphore {
    void operator()(sem_t* semaphore) const { sem_close(semaphore); }
};
// Kept open no longer than needed: who has it open may be taken for the one who has the turn.
using Semaphore = std::unique_ptr<sem_t, CloseSemaphore>;
} // namespace

// The linker puts this one in the place of the C library's (--wrap), in this program's own objects alone: a
// control library's semaphores are its own.
extern "C" sem_t* __real_sem_open(const char* name, int flags, ...);
extern "C" sem_t* __wrap_sem_open(const char* name, int flags, ...)
{
    sem_t* const ours = privateSemaphore;
    if (ours != nullptr && std::strcmp(name, kSemaphore) == 0) {
        return ours;
    }
    va_list values;
    va_start(values, flags);
    const bool isMaking = (flags & O_CREAT) != 0;
    const auto mode = isMaking ? va_arg(values, mode_t) : mode_t{};
    const auto value = isMaking ? va_arg(values, unsigned int) : 0U;
    va_end(values);
    return __real_sem_open(name, flags, mode, value);
}

namespace
{
Semaphore openSemaphore()
{
    sem_t* const semaphore = __real_sem_open(kSemaphore, 0);
    return Semaphore(semaphore != SEM_FAILED ? semaphore : nullptr);
}
} // namespace

namespace
{
[[noreturn]] void refuseSemaphore()
{
    constexpr const char* kWho = "this needs root or the daemon's user";
    const SemaphoreState semaphore = peekUpdateSemaphore();
    if (semaphore.isForeign) {
        const SemaphoreProblem problem = problemOf(semaphore);
        throw common::Failure(problem.text + ": " + problem.advice + " (" + kWho + ")");
    }
    throw common::Failure(std::string("the update semaphore cannot be opened: ") + kWho);
}
} // namespace

void prepareUpdateSemaphore()
{
    static sem_t own;
    if (peekUpdateSemaphore().isForeign) {
        refuseSemaphore();
    }
    const Semaphore made(FWUpdateCommon::getInstance()->create_semaphore());
    if (!made || sem_init(&own, 0, 1) != 0) {
        refuseSemaphore();
    }
    privateSemaphore = &own;
}

// ---- Interruption ----

namespace
{
constexpr int kInterrupts[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

void explainInterrupt(int)
{
    const char text[] = "\nfwctl: an update is running: it must not be interrupted. It ends by itself.\n";
    const int error = errno;
    const ssize_t written = write(STDERR_FILENO, text, sizeof text - 1);
    static_cast<void>(written); // nothing to be done about it in a signal handler
    errno = error;
}

using Actions = std::array<struct sigaction, std::size(kInterrupts)>;

// Gives what was done about them before.
Actions explainInterrupts()
{
    struct sigaction action = {};
    action.sa_handler = explainInterrupt;
    action.sa_flags = SA_RESTART;
    Actions before{};
    for (std::size_t index = 0; index < before.size(); ++index) {
        sigaction(kInterrupts[index], &action, &before[index]);
    }
    return before;
}

void setActions(const Actions& actions)
{
    for (std::size_t index = 0; index < actions.size(); ++index) {
        sigaction(kInterrupts[index], &actions[index], nullptr);
    }
}

// Holds them off for its scope: between taking the turn and knowing that it is taken, none may end us.
class InterruptsHeld
{
public:
    InterruptsHeld()
    {
        sigset_t held;
        sigemptyset(&held);
        for (const int signal : kInterrupts) {
            sigaddset(&held, signal);
        }
        sigprocmask(SIG_BLOCK, &held, &before_);
    }
    ~InterruptsHeld() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
    InterruptsHeld(const InterruptsHeld&) = delete;
    InterruptsHeld& operator=(const InterruptsHeld&) = delete;

private:
    sigset_t before_;
};
} // namespace

// ---- Waiting ----

void TurnWait::tell()
{
    if (!peekUpdateSemaphore().exists) {
        throw common::Failure("the update semaphore was removed while fwctl waited for it: find out which "
                              "program or control library does that, and try again");
    }
    constexpr long kLooksBetween = 5; // the whole set is searched for the holder, which is not for every look
    if (looks_++ % kLooksBetween != 0) {
        return;
    }
    const TurnState turn = lookAtTurnPatiently();
    if (turn.kind == TurnState::Kind::kUnreadable || turn.kind == TurnState::Kind::kForeign) {
        refuseSemaphore();
    }
    if (turn.kind == TurnState::Kind::kNobodys) {
        throw common::Failure(
            "the update semaphore is taken, but whoever took it has ended: \"fwctl doctor --fix\" "
            "frees it");
    }
    if (turn.kind == TurnState::Kind::kHeld && turn.holder != told_) {
        complain("waiting for " + turn.holder + ", which is updating (Ctrl-C to give up)");
        told_ = turn.holder;
    }
}

void waitForUpdateTurn()
{
    constexpr std::chrono::milliseconds kPause{200};
    TurnWait wait;
    while (true) {
        const SemaphoreState state = peekUpdateSemaphore();
        if (!state.exists || (state.isReadable && state.value > 0)) {
            return;
        }
        wait.tell();
        std::this_thread::sleep_for(kPause);
    }
}

// ---- The turn ----

namespace
{
bool isFree()
{
    const SemaphoreState state = peekUpdateSemaphore();
    return state.isReadable && state.value > 0;
}

bool post()
{
    const Semaphore semaphore = openSemaphore();
    return semaphore && sem_post(semaphore.get()) == 0;
}

bool take()
{
    const Semaphore semaphore = openSemaphore();
    return semaphore && sem_trywait(semaphore.get()) == 0;
}

// With the record locked, so that no fwctl can take what is given back here before it is noted down.
bool postNobodys(TurnRecord& record)
{
    const bool isPosted = lookAtTurnPatiently(true).kind == TurnState::Kind::kNobodys && post();
    record.setPhase(TurnPhase::kIdle);
    return isPosted;
}

Actions actionsBefore; // the turn was taken
} // namespace

bool UpdateTurn::tryToTake(pid_t child)
{
    if (!isFree() || !record_.lock()) {
        return false;
    }
    const InterruptsHeld held;
    record_.setProcesses(getpid(), child);
    record_.setPhase(TurnPhase::kTaking);
    isParents_ = take();
    record_.setPhase(isParents_ ? TurnPhase::kTaken : TurnPhase::kIdle);
    if (isParents_) {
        actionsBefore = explainInterrupts();
    } else {
        record_.unlock();
    }
    return isParents_;
}

void UpdateTurn::settle()
{
    const bool isOurs = isParents_ || record_.child() == getpid();
    if (!isOurs || !record_.lock()) {
        return;
    }
    if (record_.change(TurnPhase::kTaken, TurnPhase::kReturning)) {
        post();
        record_.setPhase(TurnPhase::kIdle);
    } else if (record_.phase() != TurnPhase::kIdle) {
        postNobodys(record_);
    }
    if (isParents_) { // what comes now may be cut off, and what is started now heeds signals as ever
        setActions(actionsBefore);
        isParents_ = false;
    }
}

bool UpdateTurn::lowerRaised(uid_t owner)
{
    TurnRecord record(owner);
    const Semaphore semaphore = record.lock() ? openSemaphore() : nullptr;
    if (!semaphore) {
        return false;
    }
    int value = 0;
    while (sem_getvalue(semaphore.get(), &value) == 0 && value > 1) {
        sem_trywait(semaphore.get());
    }
    return value <= 1;
}

bool UpdateTurn::freeNobodys(uid_t owner)
{
    TurnRecord record(owner);
    return record.lock() && postNobodys(record);
}

} // namespace fwctl
