// The daemon's code runs here without a television: nothing can be mounted or fetched, and what it logs is
// kept to be shown.
#ifndef TOOLS_FWMOD_IMAGES_QUIET_PLATFORM_H
#define TOOLS_FWMOD_IMAGES_QUIET_PLATFORM_H

#include <string>
#include <vector>

namespace fwmod
{

// The messages logged since the last call, without the place in the source. For one thread.
std::vector<std::string> takeDaemonLog();

} // namespace fwmod

#endif
