#include "update-turn.h"

#include "command.h"
#include "set-state.h"

#include "fw-update-common.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>
#include <unistd.h>

namespace
{
constexpr std::chrono::milliseconds kPause{200};
constexpr int kInterrupts[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

void explainInterrupt(int)
{
    const char text[] = "\nfwctl: an update is running: it must not be interrupted. It ends by itself.\n";
    const int error = errno;
    const ssize_t written = write(STDERR_FILENO, text, sizeof text - 1);
    static_cast<void>(written); // nothing to be done about it in a signal handler
    errno = error;
}

void setInterruptHandler(void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    for (const int signal : kInterrupts)
        sigaction(signal, &action, nullptr);
}

// A process may give its turn back and end between two looks: only what lasts is stuck.
void throwWhenStuck(const SemaphoreUsers& users, int& looksWithoutUser)
{
    looksWithoutUser = users.isNobody() ? looksWithoutUser + 1 : 0;
    if (looksWithoutUser > 5)
        throw common::Failure(
            "the update semaphore is taken, but no process has it: \"fwctl doctor --fix\" frees it");
}
} // namespace

void waitForUpdateTurn()
{
    std::string told;
    int looksWithoutUser = 0;
    while (true) {
        const SemaphoreState state = peekUpdateSemaphore();
        if (state.exists && !state.isReadable)
            throw common::Failure(
                "the update semaphore cannot be opened: this needs root or the daemon's user");
        if (!state.exists || state.value > 0)
            return;
        const SemaphoreUsers users = findSemaphoreUsers();
        throwWhenStuck(users, looksWithoutUser);
        const std::string known = likelyHolder(users);
        const std::string holder = known.empty() && !users.isNobody() ? "another process" : known;
        if (!holder.empty() && holder != told)
            std::fprintf(stderr, "fwctl: waiting for %s, which is updating (Ctrl-C to give up)\n",
                         holder.c_str());
        told = holder.empty() ? told : holder;
        std::this_thread::sleep_for(kPause);
    }
}

UpdateTurn::UpdateTurn() : semaphore_(FWUpdateCommon::getInstance()->create_semaphore())
{
    if (semaphore_ == nullptr)
        throw common::Failure("the update semaphore cannot be opened: this needs root or the daemon's user");
    while (sem_wait(semaphore_) != 0 && errno == EINTR) {
    }
}

UpdateTurn::~UpdateTurn()
{
    sem_post(semaphore_);
}

InterruptGuard::InterruptGuard()
{
    setInterruptHandler(explainInterrupt);
}

InterruptGuard::~InterruptGuard()
{
    setInterruptHandler(SIG_DFL);
}
