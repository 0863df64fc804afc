// What is mounted, as this process sees it.
#ifndef COMMON_PROCESS_MOUNT_TABLE_H
#define COMMON_PROCESS_MOUNT_TABLE_H

#include <cstdio>
#include <memory>
#include <mntent.h>
#include <string>
#include <vector>

namespace common
{

inline constexpr const char* kMountTable = "/proc/self/mounts";

struct Mount {
    std::string device;
    std::string directory;
    std::string type;
    std::string options;
};

// In the order of the mounting; empty when it cannot be read. Any thread.
inline std::vector<Mount> mountTable()
{
    std::vector<Mount> mounts;
    const std::unique_ptr<FILE, int (*)(FILE*)> table(setmntent(kMountTable, "re"), endmntent);
    mntent entry = {};
    char text[8192];
    while (table && getmntent_r(table.get(), &entry, text, sizeof text) != nullptr) {
        mounts.push_back({entry.mnt_fsname, entry.mnt_dir, entry.mnt_type, entry.mnt_opts});
    }
    return mounts;
}

} // namespace common

#endif
