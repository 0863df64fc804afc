// The three operations of the mount service, without the bus.
//
// All run on one thread. The caller is not trusted: only package images are mounted, only in the directory
// for package mounts, and no path is followed through a symbolic link.
#ifndef VSET_PSMOUNTD_MOUNT_SERVICE_H
#define VSET_PSMOUNTD_MOUNT_SERVICE_H

#include <map>
#include <string>

namespace psmount
{

// What the caller gets: both 0 is success. `retVal` is -1 for a command that was not understood or not
// allowed, `result` the errno of what failed.
struct Answer {
    int retVal = 0;
    int result = 0;
};

class MountService
{
public:
    enum class Images {
        kLoopDevice, // squashfs of the kernel over a loop device
        kFuse,       // squashfuse: a set without root
    };

    // `loopBase` is the kernel's minor number of the set's loop0, of no meaning with kFuse.
    MountService(Images images, unsigned int loopBase) : images_(images), loopBase_(loopBase) {}

    Answer mount(const std::string& command);
    Answer mknod(const std::string& command);
    Answer umount(const std::string& directory);

private:
    int mountLoop(int image, const std::string& name, int directory, bool noExec);
    int mountFuse(int image, const std::string& directory);

    Images images_;
    unsigned int loopBase_;
};

} // namespace psmount

#endif
