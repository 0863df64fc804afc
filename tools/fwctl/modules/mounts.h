// Package mounts of the set, as the kernel lists them.
#ifndef TOOLS_FWCTL_MODULES_MOUNTS_H
#define TOOLS_FWCTL_MODULES_MOUNTS_H

#include <set>
#include <string>
#include <vector>

namespace fwctl
{

// Mount points under the package mount directory, without a trailing "/"; stacked mounts count each.
std::vector<std::string> packageMountPoints();

// Why nothing below a mount point can be read: "Transport endpoint is not connected", when the program that
// reads the package has ended. Empty when there is nothing of the kind.
std::string problemOfMount(const std::string& directory);

// Through the mount service, as the daemon does it; a dead mount that is still in use is taken out of sight.
// False, with errno, when it stays.
bool unmount(const std::string& directory);

// Which of `directories` are package mounts now, but not among `before`: an update has left them.
std::set<std::string> mountsSince(const std::vector<std::string>& before,
                                  const std::set<std::string>& directories);

// Why the daemon's user cannot make a mount point in that directory: "Permission denied"; empty when it
// can, and when this process may not find out.
std::string problemOfMountDirectory();
std::string problemOfOwnMountDirectory(); // the same of this process's user

bool isMountPoint(const std::string& directory);

} // namespace fwctl

#endif
