// The package of the module "tuner", and what is logged when it is mounted.
#ifndef TESTS_SUPPORT_TUNER_PACKAGE_H
#define TESTS_SUPPORT_TUNER_PACKAGE_H

#include <string>

#include "tests/support/set-test.h"

inline const std::string kPackage = "/opt/usr/apps/appbinarymanager/empTuner.img";
inline const std::string kMountPoint = "/opt/usr/apps/appbinarymanager/emps/empTuner";

// Every mount begins with an unmount, for which there is no directory yet on a fresh set.
inline const LogLine kNoMountPoint = error("Umount dir[" + kMountPoint + "] is invalid.");
inline const LogLine kUnmounted = platformInfo("Umount dir[" + kMountPoint + "] successfully.");
inline const LogLine kMountCommand =
    platformInfo("PsMntCmd:[-o ro,loop,nodev,nosuid " + kPackage + " " + kMountPoint + "]");

#endif
