#include "mounts.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <mntent.h>

namespace
{
struct CloseMounts {
    void operator()(FILE* file) const { endmntent(file); }
};
constexpr const char* kPackageMounts = "/opt/usr/apps/appbinarymanager/emps/";
} // namespace

std::vector<std::string> packageMountPoints()
{
    std::vector<std::string> found;
    const std::unique_ptr<FILE, CloseMounts> mounts(setmntent("/proc/self/mounts", "r"));
    if (!mounts)
        return found;
    mntent entry = {};
    char buffer[8192];
    while (getmntent_r(mounts.get(), &entry, buffer, sizeof buffer) != nullptr) {
        const std::string directory = entry.mnt_dir;
        if (directory.rfind(kPackageMounts, 0) == 0)
            found.push_back(directory);
    }
    return found;
}

bool isMountPoint(const std::string& directory)
{
    const std::vector<std::string> mounted = packageMountPoints();
    return std::find(mounted.begin(), mounted.end(), directory) != mounted.end();
}
