// Keeps the set from switching off during an update that does not see to that itself.
#ifndef TOOLS_FWCTL_TURN_POWER_LOCK_H
#define TOOLS_FWCTL_TURN_POWER_LOCK_H

#include <cstdint>

namespace fwctl
{

class PowerLock
{
public:
    // For `count` updates that take `seconds` together; with the margin that the daemon adds.
    PowerLock(unsigned int count, uint32_t seconds);
    ~PowerLock();
    PowerLock(const PowerLock&) = delete;
    PowerLock& operator=(const PowerLock&) = delete;
};

} // namespace fwctl

#endif
