// Where things of the set are, and what they are called: for all programs around the daemon, which has its
// own (src/). Tests of the daemon spell out what they expect of it.
//
// Paths are the set's own and absolute; none ends in a slash.
#ifndef COMMON_DAEMON_PLACES_H
#define COMMON_DAEMON_PLACES_H

namespace common::places
{

// ---- Directories ----

inline constexpr const char* kProductControls = "/prd/usr/fwupdate/controls";
inline constexpr const char* kSystemControls = "/usr/fwupdate/controls";
inline constexpr const char* kSystemImages = "/lib/firmware/ext";        // as the daemon names it
inline constexpr const char* kBuiltInFirmware = "/usr/lib/firmware/ext"; // the same without the link
inline constexpr const char* kHardware = "/var/lib/hardware";
inline constexpr const char* kPackages = "/opt/usr/apps/appbinarymanager"; // where they are once fetched
inline constexpr const char* kPackageMounts = "/opt/usr/apps/appbinarymanager/emps";
inline constexpr const char* kFeed = "/srv/feed"; // where packages are fetched from
inline constexpr const char* kUsbSlot = "/opt/media";
inline constexpr const char* kStick = "/opt/media/USBDriveA";
inline constexpr const char* kSigningKeys = "/var/lib/signature/keys"; // public ones, trusted

// ---- Files ----

inline constexpr const char* kDaemon = "/usr/bin/tarnwick";
inline constexpr const char* kSignatureLibrary = "/usr/lib/libkZORUser.so";
inline constexpr const char* kLogFile = "/var/log/platform.log";
inline constexpr const char* kUpdateList = "/tmp/fwupdate-off-list.txt";
inline constexpr const char* kFactoryMarker = "/tmp/FACTORY_PRODCUTION"; // the platform's spelling
inline constexpr const char* kManagerMarker = "/run/.pkgmgr_ready";      // of the package manager
inline constexpr const char* kDownloadFlag = "/tmp/.fw_download_ready";  // a platform's flag, too
inline constexpr const char* kBusSocket = "/run/dbus/system_bus_socket";

// ---- Settings ----

inline constexpr const char* kStatusKey = "memory/ep_firmware_update_app/fw_update_status";
inline constexpr const char* kProgressKey = "memory/ep_firmware_update_app/fw_update_progress";
inline constexpr const char* kWorkingKey = "memory/enterprise/swupgrade/working_status";
inline constexpr const char* kMirroringKey = "memory/menu/network/screenmirroring/smsrc_status";

// ---- On the bus ----

inline constexpr const char* kDaemonName = "org.pellor.tv.tarnwick";
inline constexpr const char* kPlatformName = "org.pellor.platform";
inline constexpr const char* kPlatformPath = "/org/pellor/platform";
inline constexpr const char* kControlInterface = "org.pellor.platform.Control";
inline constexpr const char* kMountName = "org.pellor.psmount";
inline constexpr const char* kMountPath = "/org/pellor/psmount";

// ---- The update semaphore ----

inline constexpr const char* kSemaphore = "/SEM_UPDATE_CONTROL";
inline constexpr const char* kSemaphoreFile =
    "/dev/shm/sem.SEM_UPDATE_CONTROL"; // where the C library keeps it

} // namespace common::places

#endif
