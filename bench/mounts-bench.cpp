// A package mounted and unmounted as the daemon does it, through the set's mount service, beside the system
// calls that this takes, a bare bind, and the commands of Debian's for the same.

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>

#include "bench/child.h"
#include "bench/measure.h"
#include "bench/set-room.h"
#include "common/daemon/places.h"
#include "src/src/fw-update-mount-manager.h"
#include "vset/psmountd/loop-device.h"

namespace
{

const std::string kImage = std::string(common::places::kPackages) + "/empTuner.img";
const std::string kDirectory = std::string(common::places::kPackageMounts) + "/empTuner";
const std::string kMounted = kDirectory + "/Tuner.bin";

void must(bool isSo, const std::string& what)
{
    if (!isSo) {
        throw std::runtime_error(what + ": " + strerror(errno));
    }
}

bool isThere(const std::string& path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0;
}

void mountAsDaemon()
{
    FWMountManager& manager = FWMountManager::getInstance();
    must(manager.Mount(kImage, kDirectory) == 0 && isThere(kMounted), "the daemon cannot mount");
    must(manager.UMount(kDirectory) == 0, "the daemon cannot unmount");
}

void mountRaw()
{
    const common::UniqueFd image(open(kImage.c_str(), O_RDONLY | O_CLOEXEC));
    auto loop = psmount::attachLoop(image.get(), kImage);
    must(loop.has_value(), "no loop device");
    must(mount(loop->node.c_str(), kDirectory.c_str(), "squashfs", MS_RDONLY | MS_NODEV | MS_NOSUID,
               nullptr) == 0 &&
             isThere(kMounted),
         "cannot mount");
    loop->device = {}; // the mount alone holds it
    must(umount2(kDirectory.c_str(), UMOUNT_NOFOLLOW) == 0, "cannot unmount");
}

void bind()
{
    must(mount("/var/tmp", kDirectory.c_str(), nullptr, MS_BIND, nullptr) == 0, "cannot bind");
    must(umount2(kDirectory.c_str(), UMOUNT_NOFOLLOW) == 0, "cannot unmount");
}

// What `mount -o loop` does, with a node of the set's own: the command would look for one of the machine's.
void mountByCommands()
{
    bench::runProgram({"losetup", "--read-only", "/dev/loop0", kImage});
    bench::runProgram({"mount", "-t", "squashfs", "-o", "ro,nodev,nosuid", "/dev/loop0", kDirectory});
    must(isThere(kMounted), "the commands have not mounted");
    bench::runProgram({"umount", kDirectory});
    bench::runProgram({"losetup", "--detach", "/dev/loop0"});
}

void declare()
{
    std::filesystem::copy_file(EXAMPLES "/images/1.1/empTuner.img", kImage);
    std::filesystem::create_directories(kDirectory);
    mountAsDaemon(); // the kernel's device comes with its first use
    const int count = bench::isTrial() ? 1 : 10;
    const auto declareOne = [count](const char* name, void (*once)()) {
        bench::add(name, [=](bench::Sample& sample) { sample.time(once, count); });
    };
    declareOne("daemon", mountAsDaemon);
    declareOne("systemCalls", mountRaw);
    declareOne("bareBind", bind);
    declareOne("commands", mountByCommands);
}

} // namespace

int main(int argc, char** argv)
{
    const int status = bench::enterSet(argv);
    return status != 0 ? status : bench::main(argc, argv, declare);
}
