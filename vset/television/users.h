// The users of a set that is run by root, as numbers. Without root everything belongs to the caller.
#ifndef VSET_TELEVISION_USERS_H
#define VSET_TELEVISION_USERS_H

#include <sys/types.h>

namespace vset
{

constexpr uid_t kPlatformUser = 900; // of the platform services
constexpr uid_t kUpdateUser = 901;   // of the update daemon
constexpr gid_t kSystemGroup = 900;  // of both

} // namespace vset

#endif
