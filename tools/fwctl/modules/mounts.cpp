#include "tools/fwctl/modules/mounts.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mntent.h>
#include <optional>
#include <unistd.h>

#include "tools/fwctl/modules/isolated.h"
#include "tools/fwctl/privileges.h"

namespace fwctl
{

namespace
{
struct CloseMounts {
    void operator()(FILE* file) const { endmntent(file); }
};
} // namespace

std::vector<std::string> packageMountPoints()
{
    std::vector<std::string> found;
    const std::unique_ptr<FILE, CloseMounts> mounts(setmntent("/proc/self/mounts", "r"));
    if (!mounts) {
        return found;
    }
    mntent entry = {};
    char buffer[8192];
    while (getmntent_r(mounts.get(), &entry, buffer, sizeof buffer) != nullptr) {
        const std::string directory = entry.mnt_dir;
        if (directory.rfind(kPackageMounts, 0) == 0) {
            found.push_back(directory);
        }
    }
    return found;
}

std::string problemOfMountDirectory()
{
    const std::optional<uid_t> user = likelyUpdater();
    if (!user) {
        return "";
    }
    const Json::Value told = runIsolated([&](Telling& telling) {
        becomeUser(*user);
        const bool isWritable = access(kPackageMounts, W_OK | X_OK) == 0;
        telling.put("problem", isWritable ? "" : std::strerror(errno));
    });
    return told["problem"].asString();
}

bool isMountPoint(const std::string& directory)
{
    const std::vector<std::string> mounted = packageMountPoints();
    return std::find(mounted.begin(), mounted.end(), directory) != mounted.end();
}

} // namespace fwctl
