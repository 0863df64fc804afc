#include "tools/fwctl/modules/mounts.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/daemon/places.h"
#include "common/process/mount-table.h"
#include "ps_mount.h"
#include "tools/fwctl/modules/isolated.h"
#include "tools/fwctl/privileges.h"

namespace fwctl
{

namespace
{
using common::places::kPackageMounts;
} // namespace

std::vector<std::string> packageMountPoints()
{
    std::vector<std::string> found;
    for (const common::Mount& mount : common::mountTable()) {
        if (mount.directory.rfind(kPackageMounts + std::string("/"), 0) == 0) {
            found.push_back(mount.directory);
        }
    }
    return found;
}

std::string problemOfMount(const std::string& directory)
{
    struct stat status = {};
    const bool isReadable = stat(directory.c_str(), &status) == 0 || errno == ENOENT || errno == EACCES;
    return isReadable ? "" : std::strerror(errno);
}

// The mount manager asks for a directory first, and a dead mount is none.
bool unmount(const std::string& directory)
{
    int result = -1;
    const int returned = PS_Umount(directory.c_str(), static_cast<int>(directory.size()), 0, &result);
    return (returned == 0 && result == 0) || (!problemOfMount(directory).empty() &&
                                              umount2(directory.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0);
}

std::set<std::string> mountsSince(const std::vector<std::string>& before,
                                  const std::set<std::string>& directories)
{
    std::set<std::string> since;
    for (const std::string& mounted : packageMountPoints()) {
        if (directories.count(mounted) > 0 &&
            std::find(before.begin(), before.end(), mounted) == before.end()) {
            since.insert(mounted);
        }
    }
    return since;
}

std::string problemOfOwnMountDirectory()
{
    return access(kPackageMounts, W_OK | X_OK) == 0 ? "" : std::strerror(errno);
}

std::string problemOfMountDirectory()
{
    const std::optional<uid_t> user = likelyUpdater();
    if (!user) {
        return "";
    }
    const Json::Value told = runIsolated([&](Telling& telling) {
        becomeUser(*user);
        telling.put("problem", problemOfOwnMountDirectory());
    });
    return told["problem"].asString();
}

bool isMountPoint(const std::string& directory)
{
    const std::vector<std::string> mounted = packageMountPoints();
    return std::find(mounted.begin(), mounted.end(), directory) != mounted.end();
}

} // namespace fwctl
