// What the daemon takes at most, for the programs around it.
#ifndef COMMON_DAEMON_LIMITS_H
#define COMMON_DAEMON_LIMITS_H

#include <cstddef>

namespace common
{

// Bytes of an information file: a longer one counts as unreadable.
constexpr std::size_t kMostInformation = 1 << 20;

} // namespace common

#endif
