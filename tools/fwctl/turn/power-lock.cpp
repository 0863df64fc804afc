#include "tools/fwctl/turn/power-lock.h"

#include <csignal>
#include <cstdio>
#include <initializer_list>
#include <sys/prctl.h>
#include <unistd.h>

#include "pwrctl.h"

namespace fwctl
{

namespace
{
constexpr int kAcceptedRun = 0; // the kind of lock that an update gets which a person has asked for
constexpr uint32_t kMarginMs = 5000;
} // namespace

uint32_t powerTime(unsigned int count, uint32_t seconds)
{
    return count * kMarginMs + seconds * 1000;
}

PowerLock::PowerLock(uint32_t milliseconds)
{
    if (pwrctl_lock_state(kAcceptedRun, milliseconds) != 0) {
        std::fprintf(stderr, "fwctl: the power cannot be locked: do not switch the set off\n");
    }
}

PowerLock::~PowerLock()
{
    pwrctl_unlock_state(kAcceptedRun);
}

namespace
{
[[noreturn]] void keepPower(pid_t parent, uint32_t milliseconds)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close_range(STDERR_FILENO + 1, ~0U, 0); // no lock and no pipe of the parent's is held open
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        std::signal(signal, SIG_IGN); // the parent answers them
    }
    if (getppid() == parent) { // else it had ended before the tie was made
        pwrctl_lock_state(kAcceptedRun, milliseconds);
        pause();
    }
    _exit(0);
}
} // namespace

void keepPowerUntilEnd(uint32_t milliseconds)
{
    std::fflush(nullptr); // else it is printed twice
    const pid_t self = getpid();
    if (fork() == 0) {
        keepPower(self, milliseconds);
    }
}

} // namespace fwctl
