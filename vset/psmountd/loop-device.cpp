#include "vset/psmountd/loop-device.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "vset/launcher/root.h"
#include "vset/psmountd/command-line.h"

namespace psmount
{

namespace
{

std::string nodeOf(unsigned int number)
{
    return "/dev/loop" + std::to_string(number);
}

// The node of a set may stand for a kernel device that does not exist yet.
void addKernelDevice(const std::string& node)
{
    struct stat status{};
    if (stat(node.c_str(), &status) != 0) {
        return;
    }
    const vset::UniqueFd control(open(vset::kLoopControlPath, O_RDWR | O_CLOEXEC));
    if (control) {
        ioctl(control.get(), LOOP_CTL_ADD, static_cast<long>(minor(status.st_rdev))); // exists already: fine
    }
}

loop_config configurationFor(int image, const std::string& name)
{
    loop_config configuration{};
    configuration.fd = static_cast<__u32>(image);
    configuration.info.lo_flags = LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR;
    auto* text = reinterpret_cast<char*>(configuration.info.lo_file_name);
    std::strncpy(text, name.c_str(), LO_NAME_SIZE - 1); // what losetup shows
    return configuration;
}

} // namespace

std::vector<unsigned int> presentLoops()
{
    std::vector<unsigned int> numbers;
    for (unsigned int number = 0; number <= kHighestLoop; ++number) {
        struct stat status{};
        if (lstat(nodeOf(number).c_str(), &status) == 0 && !S_ISLNK(status.st_mode)) {
            numbers.push_back(number);
        }
    }
    return numbers;
}

std::optional<AttachedLoop> attachLoop(int image, const std::string& name)
{
    const loop_config configuration = configurationFor(image, name);
    for (const unsigned int number : presentLoops()) {
        const std::string node = nodeOf(number);
        addKernelDevice(node);
        vset::UniqueFd device(open(node.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
        if (!device) {
            return std::nullopt;
        }
        if (ioctl(device.get(), LOOP_CONFIGURE, &configuration) == 0) {
            return AttachedLoop{std::move(device), node};
        }
        if (errno != EBUSY) {
            return std::nullopt;
        }
    }
    errno = ENODEV;
    return std::nullopt;
}

} // namespace psmount
