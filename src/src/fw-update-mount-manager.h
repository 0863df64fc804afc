// Read-only loop mounts of package images through the set's privileged mount service.
//
// Nothing is kept between calls, every call blocks on the service, and every thread may call: of two
// threads that are short of the same loop node, one makes it and the other goes on with the next number.
#ifndef FW_UPDATE_MOUNT_MANAGER_H
#define FW_UPDATE_MOUNT_MANAGER_H

#include <string>

class FWMountManager
{
public:
    static FWMountManager& getInstance();

    // Mounts the image file `srcFile` on `destDir`, which is made (one level, mode 0775) when missing.
    // 0 when mounted, -1 otherwise.
    int Mount(const std::string& srcFile, const std::string& destDir);

    // Unmounts the directory; whether anything is mounted there is for the service to say.
    // 0 when unmounted, -1 otherwise.
    int UMount(const std::string& dir);
};

// Mounts `file` on `dest` with the mount utility's `options`. When every loop node of the set is in use,
// makes further ones, up to /dev/loop249, and tries again with each. Throws what listing "/dev" throws.
bool loop_mount(const char* file, const char* dest, const char* options);

// Lines of "/proc/mounts" that are loop mounts: a device that is mounted twice counts twice.
int countMountedLoopDevices();

// Loop nodes in "/dev". Throws boost::filesystem::filesystem_error when it cannot be listed.
int countPresentLoopDevices();

// What stands at `path`, links followed; false when nothing does.
bool IsDir(const char* path);
bool IsFile(const char* path);

#endif
