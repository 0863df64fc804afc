// Whether a control library is external, which the daemon runs in another way: for programs that the daemon's
// own code (src/) is no part of.
#ifndef COMMON_DAEMON_EXTERNAL_NAME_H
#define COMMON_DAEMON_EXTERNAL_NAME_H

#include <cstddef>
#include <string>
#include <strings.h>

namespace common
{

// As the daemon tells it: "EXT-" in either case, anywhere in the library's name.
inline bool isExternalName(const std::string& name)
{
    for (std::size_t at = 0; at < name.size(); ++at) {
        if (strncasecmp(name.c_str() + at, "EXT-", 4) == 0) {
            return true;
        }
    }
    return false;
}

} // namespace common

#endif
