#include "fw-update-mount-manager.h"

#include <boost/filesystem.hpp>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "fw-update-file.h"
#include "fw-update-log.h"
#include "ps_mount.h"

namespace
{

constexpr int kLoopNodeLimit = 250; // numbers 0 to 249
constexpr size_t kCommandSize = 1024;

bool startsWith(const std::string& text, const char* prefix)
{
    return text.rfind(prefix, 0) == 0;
}

// What the service answered: it succeeded only when both are 0.
struct ServiceAnswer {
    int retVal;
    int result;

    bool ok() const { return retVal == 0 && result == 0; }
};

ServiceAnswer mountWith(const char (&command)[kCommandSize])
{
    int result = 0;
    const int retVal = PS_Mount(command, sizeof command, 0, &result);
    return {retVal, result};
}

ServiceAnswer makeLoopNode(int number)
{
    char command[kCommandSize] = {};
    snprintf(command, sizeof command, "-m 0660 -Z * /dev/loop%d  b 7 %d", number, number);
    int result = 0;
    const int retVal = PS_Mknod(command, sizeof command, 0, &result);
    return {retVal, result};
}

} // namespace

// ---- Mount and unmount ----

FWMountManager& FWMountManager::getInstance()
{
    static FWMountManager instance;
    return instance;
}

int FWMountManager::Mount(const std::string& srcFile, const std::string& destDir)
{
    if (srcFile.empty() || destDir.empty()) {
        FWLOGE("Source file or dest dir is empty.");
        return -1;
    }
    if (!IsFile(srcFile.c_str())) {
        FWLOGE("srcFile[%s] is not exist.", srcFile.c_str());
        return -1;
    }
    if (access(destDir.c_str(), F_OK) != 0) {
        const int made = mkdir(destDir.c_str(), 0775);
        if (made != 0) {
            const int reason = errno;
            char buffer[256] = {};
            const char* const text = strerror_r(reason, buffer, sizeof buffer);
            FWLOGE("Dest Path [%s] failed to create! return:[%d], errno:[%d, %s, %s]", destDir.c_str(), made,
                   reason, text, buffer);
            return -1;
        }
    }
    return loop_mount(srcFile.c_str(), destDir.c_str(), "ro,loop,nodev,nosuid") ? 0 : -1;
}

int FWMountManager::UMount(const std::string& dir)
{
    if (dir.empty()) {
        FWLOGE("Input umount dir is empty.");
        return -1;
    }
    if (!IsDir(dir.c_str())) {
        FWLOGE("Umount dir[%s] is invalid.", dir.c_str());
        return -1;
    }
    try {
        int result = 0;
        const int retVal = PS_Umount(dir.c_str(), static_cast<int>(dir.length()), 0, &result);
        if (retVal == 0 && result == 0) {
            FWLOG_NORLOG(FWLOG_INFO, "Umount dir[%s] successfully.", dir.c_str());
            return 0;
        }
        FWLOGE("Error(iRet1=%d, iRet2=%d) while unmounitng [%s]", retVal, result, dir.c_str());
    } catch (const std::exception& error) {
        FWLOGE("Failed to umount[%s], error[%s].", dir.c_str(), error.what());
    }
    return -1;
}

// ---- Loop mount with new nodes when the set has run out of them ----

bool loop_mount(const char* file, const char* dest, const char* options)
{
    char command[kCommandSize] = {};
    snprintf(command, sizeof command, "-o %s %s %s", options, file, dest);
    FWLOG_NORLOG(FWLOG_INFO, "PsMntCmd:[%s]", command);

    const ServiceAnswer first = mountWith(command);
    if (first.ok()) {
        return true;
    }
    FWLOG_NORLOG(FWLOG_INFO, "Fail PS_Mount: file:[%s], dest:[%s], retVal:[%d], result:[%d]", file, dest,
                 first.retVal, first.result);

    const int present = countPresentLoopDevices();
    const int mounted = countMountedLoopDevices();
    FWLOG_NORLOG(FWLOG_INFO, "loop count is %d, mount count is %d", present, mounted);
    if (present != mounted) {
        return false; // a node was free, so the mount failed for another reason
    }

    for (int number = present; number < kLoopNodeLimit; ++number) {
        const ServiceAnswer node = makeLoopNode(number);
        if (!node.ok()) {
            FWLOGE("PS_Mknod error, retVal: [%d], result: [%d]", node.retVal, node.result);
            continue;
        }
        const ServiceAnswer again = mountWith(command);
        if (again.ok()) {
            return true;
        }
        FWLOGE("Fail PS_Mount: file:[%s], dest:[%s], retVal:[%d], result:[%d]", file, dest, again.retVal,
               again.result);
    }
    return false;
}

// ---- Probes ----

int countMountedLoopDevices()
{
    std::string text;
    readWhole("/proc/mounts", SIZE_MAX, text);
    std::istringstream mounts(text);
    int count = 0;
    for (std::string line; std::getline(mounts, line);) {
        count += startsWith(line, "/dev/loop") ? 1 : 0;
    }
    return count;
}

int countPresentLoopDevices()
{
    int count = 0;
    for (const auto& entry : boost::filesystem::directory_iterator("/dev")) {
        const std::string path = entry.path().string();
        count += startsWith(path, "/dev/loop") && !startsWith(path, "/dev/loop-control") ? 1 : 0;
    }
    return count;
}

bool IsDir(const char* path)
{
    struct stat status;
    return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

bool IsFile(const char* path)
{
    struct stat status;
    return stat(path, &status) == 0 && S_ISREG(status.st_mode);
}
