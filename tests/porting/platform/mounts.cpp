// ps_mount.h. The daemon has no privileges on a set, so that a service stands behind these calls there. Here
// the daemon runs as root, and they do the work themselves.
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <linux/loop.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "ps_mount.h"

namespace
{

// Both numbers say how it went: 0, or why not.
int answer(int error, int* result)
{
    *result = error;
    return error == 0 ? 0 : -1;
}

// Puts the image behind the first free loop device, and gives that one's descriptor; -1 with errno, ENODEV
// without one.
int attach(int image, std::string& device)
{
    for (int number = 0;; ++number) {
        device = "/dev/loop" + std::to_string(number);
        const int loop = open(device.c_str(), O_RDONLY | O_CLOEXEC);
        if (loop < 0) {
            errno = errno == ENOENT ? ENODEV : errno;
            return -1;
        }
        loop_config config{};
        config.fd = static_cast<unsigned int>(image);
        config.info.lo_flags = LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR; // free again with the mount's end
        if (ioctl(loop, LOOP_CONFIGURE, &config) == 0) {
            return loop;
        }
        const int error = errno;
        close(loop);
        if (error != EBUSY) {
            errno = error;
            return -1;
        }
    }
}

int mountImage(const char* path, const char* directory)
{
    const int image = open(path, O_RDONLY | O_CLOEXEC);
    if (image < 0) {
        return errno;
    }
    std::string device;
    const int loop = attach(image, device);
    const bool isMounted = loop >= 0 && mount(device.c_str(), directory, "squashfs",
                                              MS_RDONLY | MS_NODEV | MS_NOSUID, nullptr) == 0;
    const int error = isMounted ? 0 : errno;
    close(image);
    if (loop >= 0) {
        close(loop);
    }
    return error;
}

} // namespace

int PS_Mount(const char* command, int length, int, int* result)
{
    const std::string text(command, static_cast<size_t>(length)); // ends at its first zero byte
    char image[512];
    char directory[512];
    const bool isKnown = sscanf(text.c_str(), "-o ro,loop,nodev,nosuid %511s %511s", image, directory) == 2;
    return answer(isKnown ? mountImage(image, directory) : EINVAL, result);
}

int PS_Mknod(const char* command, int length, int, int* result)
{
    const std::string text(command, static_cast<size_t>(length));
    unsigned int number = 0;
    struct stat first{};
    if (sscanf(text.c_str(), "-m 0660 -Z * /dev/loop%u", &number) != 1 || stat("/dev/loop0", &first) != 0) {
        return answer(EINVAL, result);
    }
    const dev_t device = makedev(major(first.st_rdev), minor(first.st_rdev) + number);
    return answer(mknod(("/dev/loop" + std::to_string(number)).c_str(), S_IFBLK | 0660, device) == 0 ? 0
                                                                                                     : errno,
                  result);
}

int PS_Umount(const char* directory, int length, int, int* result)
{
    const std::string path(directory, static_cast<size_t>(length));
    return answer(umount(path.c_str()) == 0 ? 0 : errno, result);
}
