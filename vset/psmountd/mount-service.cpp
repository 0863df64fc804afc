#include "vset/psmountd/mount-service.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/major.h>
#include <linux/openat2.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <vector>

#include "common/daemon/places.h"
#include "common/process/mount-table.h"
#include "vset/psmountd/command-line.h"
#include "vset/psmountd/loop-device.h"

namespace psmount
{

namespace
{

constexpr Answer kNotUnderstood{-1, EINVAL};

using common::places::kPackageMounts;
using common::places::kPackages;
using vset::UniqueFd;

// ---- Paths ----

// Opens `path`, which has to lie in `area`, without following any symbolic link on the way from there.
UniqueFd openWithin(const std::string& area, const std::string& path, uint64_t flags)
{
    if (path.compare(0, area.size() + 1, area + "/") != 0) {
        errno = EACCES;
        return UniqueFd();
    }
    const UniqueFd base(open(area.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!base) {
        return UniqueFd();
    }
    const size_t start = path.find_first_not_of('/', area.size());
    const std::string rest = start == std::string::npos ? "." : path.substr(start);
    open_how how{};
    how.flags = flags | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return UniqueFd(syscall(SYS_openat2, base.get(), rest.c_str(), &how, sizeof how));
}

UniqueFd openImage(const std::string& path)
{
    UniqueFd image = openWithin(kPackages, path, O_RDONLY | O_NONBLOCK); // a pipe shall not block the service
    struct stat status{};
    if (!image || fstat(image.get(), &status) != 0) {
        return UniqueFd();
    }
    if (S_ISREG(status.st_mode)) {
        return image;
    }
    errno = EINVAL;
    return UniqueFd();
}

std::string withoutTrailingSlashes(std::string path)
{
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

// The real path of an open directory.
std::string pathOf(int directory)
{
    std::error_code error;
    return vset::fs::read_symlink("/proc/self/fd/" + std::to_string(directory), error).string();
}

// ---- Mounting through a loop device ----

// The file system on `device`, not mounted yet. By the kernel's own calls: a library that is told the target
// by its name has to find the directory again, which may be another one by then.
UniqueFd openSquashfs(const std::string& device)
{
    UniqueFd context(fsopen("squashfs", FSOPEN_CLOEXEC));
    const bool isOpen = context &&
                        fsconfig(context.get(), FSCONFIG_SET_STRING, "source", device.c_str(), 0) == 0 &&
                        fsconfig(context.get(), FSCONFIG_SET_FLAG, "ro", nullptr, 0) == 0 &&
                        fsconfig(context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) == 0;
    return isOpen ? std::move(context) : UniqueFd();
}

// ---- Mounting through FUSE ----

bool isMountSource(const std::string& node)
{
    const std::vector<common::Mount> mounts = common::mountTable();
    return std::any_of(mounts.begin(), mounts.end(),
                       [&](const common::Mount& mount) { return mount.device == node; });
}

// The name under which the mount is to appear: a present loop node that no mount uses.
std::optional<std::string> freeNodeName()
{
    for (const unsigned int number : presentLoops()) {
        const std::string node = "/dev/loop" + std::to_string(number);
        if (!isMountSource(node)) {
            return node;
        }
    }
    return std::nullopt;
}

bool isSquashfs(int image)
{
    char magic[4];
    return pread(image, magic, sizeof magic, 0) == sizeof magic &&
           std::memcmp(magic, "hsqs", sizeof magic) == 0;
}

int runSquashfuse(const std::string& options, int image, const std::string& directory)
{
    const UniqueFd inherited(dup(image)); // without close-on-exec
    const std::string imagePath = "/proc/self/fd/" + std::to_string(inherited.get());
    const char* const arguments[] = {"squashfuse",      "-o",   options.c_str(), imagePath.c_str(),
                                     directory.c_str(), nullptr};
    pid_t process = 0;
    const int error =
        posix_spawnp(&process, arguments[0], nullptr, nullptr, const_cast<char* const*>(arguments), environ);
    if (error == ENOENT) {
        std::fputs("psmountd: squashfuse is not installed: a set without root needs it\n", stderr);
        return ENOSYS;
    }
    if (error != 0) {
        return error;
    }
    return vset::shellStatus(vset::waitFor(process)) == 0 ? 0 : EIO;
}

} // namespace

// ---- Operations ----

Answer MountService::mount(const std::string& text)
{
    const std::optional<MountCommand> command = parseMount(text);
    if (!command) {
        return kNotUnderstood;
    }
    const UniqueFd image = openImage(command->image);
    if (!image) {
        return {-1, errno};
    }
    const UniqueFd directory = openWithin(kPackageMounts, command->directory, O_PATH | O_DIRECTORY);
    if (!directory) {
        return {-1, errno};
    }
    const std::string realDirectory = pathOf(directory.get());
    if (realDirectory == kPackageMounts) {
        return {-1, EACCES}; // the area itself stays visible
    }
    const int error = images_ == Images::kFuse
                          ? mountFuse(image.get(), realDirectory)
                          : mountLoop(image.get(), command->image, directory.get(), command->noExec);
    return {error == 0 ? 0 : -1, error};
}

int MountService::mountLoop(int image, const std::string& name, int directory, bool noExec)
{
    const std::optional<AttachedLoop> loop = attachLoop(image, name);
    if (!loop) {
        return errno;
    }
    const UniqueFd squashfs = openSquashfs(loop->node);
    if (!squashfs) {
        return errno;
    }
    constexpr unsigned int kAlways = MOUNT_ATTR_RDONLY | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOSUID;
    const UniqueFd tree(
        fsmount(squashfs.get(), FSMOUNT_CLOEXEC, kAlways | (noExec ? MOUNT_ATTR_NOEXEC : 0U)));
    if (!tree) {
        return errno;
    }
    // The open directory itself is mounted on, whatever its name stands for by now.
    constexpr unsigned int kByDescriptors = MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH;
    return move_mount(tree.get(), "", directory, "", kByDescriptors) == 0 ? 0 : errno;
}

int MountService::mountFuse(int image, const std::string& directory)
{
    if (!isSquashfs(image)) {
        return EINVAL;
    }
    const std::optional<std::string> node = freeNodeName();
    if (!node) {
        return ENODEV;
    }
    return runSquashfuse("ro,nodev,nosuid,fsname=" + *node, image, directory);
}

Answer MountService::mknod(const std::string& text)
{
    const std::optional<MknodCommand> command = parseMknod(text);
    if (!command) {
        return kNotUnderstood;
    }
    const std::string node = "/dev/loop" + std::to_string(command->loop);
    const bool fuse = images_ == Images::kFuse; // only the name counts then
    const mode_t type = fuse ? S_IFREG : S_IFBLK;
    const dev_t device = fuse ? 0 : makedev(LOOP_MAJOR, loopBase_ + command->loop);
    if (::mknod(node.c_str(), type | command->mode, device) != 0) {
        return {-1, errno};
    }
    return {};
}

Answer MountService::umount(const std::string& path)
{
    const std::string directory = withoutTrailingSlashes(path);
    const size_t slash = directory.rfind('/');
    if (directory.empty() || directory[0] != '/') {
        return kNotUnderstood;
    }
    const std::string name = directory.substr(slash + 1);
    if (name == "." || name == "..") {
        return kNotUnderstood;
    }
    // The directory itself must not be open, or it would be busy: hence its parent is.
    const UniqueFd parent = openWithin(kPackageMounts, directory.substr(0, slash + 1), O_PATH | O_DIRECTORY);
    if (!parent || fchdir(parent.get()) != 0) {
        return {-1, errno};
    }
    const int error = ::umount2(name.c_str(), UMOUNT_NOFOLLOW) == 0 ? 0 : errno;
    if (chdir("/") != 0) {
        return {-1, errno};
    }
    return {error == 0 ? 0 : -1, error};
}

} // namespace psmount
