// What platformd and those around it rely on of each other: PID 1, which starts it and does what only it can,
// and the programs that speak to it.
//
// Started as `platformd [--no-power-cycle] [--ready-fd N]`, it writes one byte to N once its services can be
// used; the console's address is in its file by then.
#ifndef VSET_PLATFORMD_CONTRACT_H
#define VSET_PLATFORMD_CONTRACT_H

#include "common/daemon/places.h"

namespace vset
{

// Exit statuses by which it asks for what only PID 1 can do; 0 is an end that was asked for, 1 a failure, 2
// wrong use.
inline constexpr int kExitPowerOff = 10;
inline constexpr int kExitReboot = 11;

// Of the set; one line, put there whole.
inline constexpr const char* kConsoleUrlPath = "/run/console.url";

// On the set's system bus; the interfaces are in platform.xml and console.xml.
using common::places::kControlInterface;
using common::places::kPlatformName;
using common::places::kPlatformPath;
inline constexpr const char* kConsoleInterface = "org.pellor.platform.Console";

} // namespace vset

#endif
