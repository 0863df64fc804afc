// Keeps the set from switching off during an update that does not see to that itself.
#ifndef TOOLS_FWCTL_TURN_POWER_LOCK_H
#define TOOLS_FWCTL_TURN_POWER_LOCK_H

#include <cstdint>

namespace fwctl
{

// Milliseconds for `count` updates that take `seconds` together; with the margin that the daemon adds.
uint32_t powerTime(unsigned int count, uint32_t seconds);

class PowerLock
{
public:
    explicit PowerLock(uint32_t milliseconds);
    ~PowerLock();
    PowerLock(const PowerLock&) = delete;
    PowerLock& operator=(const PowerLock&) = delete;
};

// Locks the power as well, in a process of its own and until this one has ended: a set that goes off, or
// reboots, as soon as the update gives its lock back does so before anybody has read how it went. Only while
// this process has no other thread.
void keepPowerUntilEnd(uint32_t milliseconds);

} // namespace fwctl

#endif
