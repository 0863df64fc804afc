// Package mounts of the set, as the kernel lists them.
#ifndef FWCTL_MOUNTS_H
#define FWCTL_MOUNTS_H

#include <string>
#include <vector>

// Mount points under the package mount directory, without a trailing "/"; stacked mounts count each.
std::vector<std::string> packageMountPoints();

bool isMountPoint(const std::string& directory);

#endif
