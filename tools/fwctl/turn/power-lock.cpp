#include "tools/fwctl/turn/power-lock.h"

#include <cstdio>

#include "pwrctl.h"

namespace fwctl
{

namespace
{
constexpr int kAcceptedRun = 0; // the kind of lock that an update gets which a person has asked for
constexpr uint32_t kMarginMs = 5000;
} // namespace

PowerLock::PowerLock(unsigned int count, uint32_t seconds)
{
    if (pwrctl_lock_state(kAcceptedRun, count * kMarginMs + seconds * 1000) != 0) {
        std::fprintf(stderr, "fwctl: the power cannot be locked: do not switch the set off\n");
    }
}

PowerLock::~PowerLock()
{
    pwrctl_unlock_state(kAcceptedRun);
}

} // namespace fwctl
