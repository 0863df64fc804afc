// Whether a set is on: its launcher locks (flock) the set's directory, from before the first boot, over
// reboots, to the end. Files in it can be replaced while the set is on, and another launcher would then see a
// lock of its own.
//
// Both throw common::Failure, with what to do, when there is something else than a file or a directory where
// they stand.
#ifndef VSET_CLIENT_SET_LOCK_H
#define VSET_CLIENT_SET_LOCK_H

#include <filesystem>

#include "common/files/unique-fd.h"

namespace vset
{

constexpr const char* kLockFile = ".vset/lock"; // in the set's directory: its PID 1; locked as well

common::UniqueFd openToLock(const std::filesystem::path& set);

bool isOn(const std::filesystem::path& set);

} // namespace vset

#endif
