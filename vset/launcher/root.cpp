#include "vset/launcher/root.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/major.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "common/files/file-copy.h"
#include "common/terminal/visible-text.h"
#include "vset/client/set-file.h"
#include "vset/clock/clock-page.h"

namespace vset
{

namespace
{

void mountOn(const char* source, const fs::path& target, const char* type, unsigned long flags,
             const char* options)
{
    if (mount(source, target.c_str(), type, flags, options) != 0) {
        failWithErrno("cannot mount " + std::string(type != nullptr ? type : source) + " on " +
                      target.string());
    }
}

// A detached copy of a part of the PC's file tree, to be put into the new root later.
UniqueFd copyTree(const fs::path& path)
{
    return UniqueFd(
        check(open_tree(AT_FDCWD, path.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE),
              "cannot take over " + path.string()));
}

void makeReadOnly(int tree)
{
    mount_attr attributes{};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    check(mount_setattr(tree, "", AT_EMPTY_PATH | AT_RECURSIVE, &attributes, sizeof attributes),
          "cannot make a mount read-only");
}

void attachTree(const UniqueFd& tree, const fs::path& target)
{
    check(move_mount(tree.get(), "", AT_FDCWD, target.c_str(), MOVE_MOUNT_F_EMPTY_PATH),
          "cannot attach " + target.string());
}

void bindReadOnly(const fs::path& source, const fs::path& target)
{
    const UniqueFd tree = copyTree(source);
    makeReadOnly(tree.get());
    attachTree(tree, target);
}

void touch(const fs::path& path)
{
    writeFile(path, "");
}

// ---- /usr and the directories beside it ----

// Without a word of it no program could be run any more.
void requireUsable(const RootPlan& plan, const fs::path& root)
{
    for (const fs::path& directory : {root, plan.set.usr()}) {
        const bool isClosed =
            (fs::status(directory).permissions() & fs::perms::others_exec) == fs::perms::none;
        if (isClosed && !plan.rootless) {
            throw Error(directory.string() + " is closed to the set's users: open it with chmod 755");
        }
    }
    for (fs::recursive_directory_iterator entry(plan.set.usr()), end; entry != end; ++entry) {
        const fs::path host = "/usr" / entry->path().lexically_relative(plan.set.usr());
        if (!fs::is_directory(host)) {
            entry.disable_recursion_pending(); // nothing below it can be in the way
        } else if (!entry->is_directory()) {
            throw Error(entry->path().string() + " is in the way: a set has a directory there");
        }
    }
}

void composeUsr(const RootPlan& plan, const fs::path& root)
{
    requireUsable(plan, root);
    makePlainDirectory(root / "usr");
    // A relative lower directory needs no quoting, whatever characters the set's path has.
    check(chdir(plan.set.path().c_str()), "cannot enter " + plan.set.path().string());
    const char* options = plan.rootless ? "lowerdir=usr:/usr,userxattr" : "lowerdir=usr:/usr";
    mountOn("overlay", root / "usr", "overlay", MS_RDONLY | MS_NODEV, options);
    // Bound over the overlay, so that files which are added on the PC appear while the set runs.
    for (const char* live : {"fwupdate", "lib/firmware/ext"}) {
        bindReadOnly(plan.set.usr() / live, root / "usr" / live);
    }
    for (const char* name : {"bin", "sbin", "lib", "lib32", "lib64", "libx32"}) {
        const fs::path host = fs::path("/") / name;
        const fs::path inside = root / name;
        if (fs::is_symlink(host) && !fs::is_symlink(inside)) {
            fs::copy_symlink(host, inside);
        } else if (!fs::is_symlink(host) && fs::is_directory(host)) {
            makePlainDirectory(inside);
            bindReadOnly(host, inside);
        }
    }
}

// ---- /etc ----

constexpr const char* kHostConfiguration[] = {
    "ld.so.cache", "ld.so.conf", "ld.so.conf.d",    "nsswitch.conf", "alternatives", "localtime",
    "timezone",    "hosts",      "host.conf",       "resolv.conf",   "gai.conf",     "ssl",
    "fonts",       "mime.types", "services",        "protocols",     "profile",      "bash.bashrc",
    "terminfo",    "inputrc",    "ca-certificates",
};

void takeOverConfiguration(const fs::path& name, const fs::path& etc)
{
    const fs::path host = fs::path("/etc") / name;
    const fs::file_status status = fs::symlink_status(host);
    if (fs::is_symlink(status)) {
        fs::copy_symlink(host, etc / name);
    } else if (fs::is_directory(status)) {
        fs::create_directory(etc / name);
        bindReadOnly(host, etc / name);
    } else if (fs::is_regular_file(status)) {
        common::copyFile(host, etc / name);
    }
}

// The PC's table without entries that clash with the set's, by name or by number.
std::string accountTable(const fs::path& hostFile,
                         const std::vector<std::pair<std::string, std::string>>& own)
{
    const auto key = [](const std::string& line) {
        std::istringstream fields(line);
        std::string name;
        std::string password;
        std::string id;
        std::getline(fields, name, ':');
        std::getline(fields, password, ':');
        std::getline(fields, id, ':');
        return std::pair(name, id);
    };
    std::string table;
    std::istringstream host(readSetFile(hostFile).value_or(""));
    for (std::string line; std::getline(host, line);) {
        const auto clashes = [&](const auto& entry) {
            const auto [name, id] = key(entry.first);
            return key(line).first == name || key(line).second == id;
        };
        if (std::none_of(own.begin(), own.end(), clashes)) {
            table += line + "\n";
        }
    }
    for (const auto& [prefix, rest] : own) {
        table += prefix + rest + "\n";
    }
    return table;
}

void composeEtc(const RootPlan& plan, const fs::path& etc)
{
    makePlainDirectory(etc);
    mountOn("etc", etc, "tmpfs", MS_NODEV | MS_NOSUID, "mode=0755");
    for (const char* name : kHostConfiguration) {
        takeOverConfiguration(name, etc);
    }
    const std::string group = ":" + std::to_string(kSystemGroup) + ":";
    writeFile(etc / "passwd", accountTable("/etc/passwd", {{"platform:x:" + std::to_string(kPlatformUser),
                                                            group + "platform services:/:/usr/sbin/nologin"},
                                                           {"fwupdate:x:" + std::to_string(kUpdateUser),
                                                            group + "firmware update:/:/usr/sbin/nologin"}}));
    writeFile(etc / "group", accountTable("/etc/group", {{"system:x:" + std::to_string(kSystemGroup), ":"}}));
    writeFile(etc / "machine-id", readSetFile(plan.set.machineIdFile()).value_or(""));
    writeFile(etc / "hostname", plan.set.path().filename().string() + "\n");
}

// ---- /dev ----

void makeNode(const fs::path& node, mode_t mode, dev_t device)
{
    check(mknod(node.c_str(), mode, device),
          "cannot make " + node.string() + " (a container may forbid it; -u does without devices)");
    check(chmod(node.c_str(), mode & 07777), "cannot set the mode of " + node.string()); // past the mask
}

void makeLoopNode(const RootPlan& plan, const fs::path& dev, unsigned int number)
{
    const fs::path node = dev / ("loop" + std::to_string(number));
    if (plan.rootless) { // the mount service serves images through FUSE then and needs only the name
        touch(node);
        return;
    }
    makeNode(node, S_IFBLK | 0660, makedev(LOOP_MAJOR, plan.loopBase + number));
}

void makeLoopControl(const RootPlan& plan, const fs::path& dev)
{
    if (plan.rootless) {
        return;
    }
    fs::create_directory(dev / ".vset");
    check(chmod((dev / ".vset").c_str(), 0700), "cannot hide the loop control node");
    constexpr unsigned int kMiscMajor = 10;
    constexpr unsigned int kLoopControlMinor = 237;
    makeNode(dev / ".vset/loop-control", S_IFCHR | 0600, makedev(kMiscMajor, kLoopControlMinor));
}

// One of the PC's devices under a node of the set's own: whose mode the set changes is not the PC's. A plain
// user cannot make one and gets to see the PC's, which cannot be changed by that way.
void takeOverDevice(const RootPlan& plan, const fs::path& dev, const char* name)
{
    const fs::path host = fs::path("/dev") / name;
    const fs::path node = dev / name;
    struct stat status{};
    if (stat(host.c_str(), &status) != 0) {
        return; // no FUSE on this PC
    }
    if (plan.rootless) {
        touch(node);
        bindReadOnly(host, node); // no change of the node; what is written to the device gets there
        return;
    }
    makeNode(node, status.st_mode, status.st_rdev);
}

void composeDev(const RootPlan& plan, const fs::path& dev)
{
    makePlainDirectory(dev);
    mountOn("dev", dev, "tmpfs", MS_NOSUID, "mode=0755");
    for (const char* name : {"null", "zero", "full", "random", "urandom", "tty", "fuse"}) {
        takeOverDevice(plan, dev, name);
    }
    for (const char* name : {"pts", "shm", "mqueue"}) {
        fs::create_directory(dev / name);
    }
    mountOn("devpts", dev / "pts", "devpts", MS_NOSUID | MS_NOEXEC, "newinstance,ptmxmode=0666,mode=0620");
    mountOn("shm", dev / "shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
    mountOn("mqueue", dev / "mqueue", "mqueue", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr);
    constexpr std::pair<const char*, const char*> kLinks[] = {{"pts/ptmx", "ptmx"},
                                                              {"/proc/self/fd", "fd"},
                                                              {"/proc/self/fd/0", "stdin"},
                                                              {"/proc/self/fd/1", "stdout"},
                                                              {"/proc/self/fd/2", "stderr"}};
    for (const auto& [target, name] : kLinks) {
        fs::create_symlink(target, dev / name);
    }
    for (unsigned int number = 0; number < plan.loopNodes; ++number) {
        makeLoopNode(plan, dev, number);
    }
    makeLoopControl(plan, dev);
}

// ---- /proc, /sys ----

// All but the processes is one for the machine, modes included: a look at it, nothing more.
void shieldKernel(const fs::path& proc)
{
    for (const fs::directory_entry& entry : fs::directory_iterator(proc)) {
        const bool isProcess =
            std::isdigit(static_cast<unsigned char>(entry.path().filename().c_str()[0])) != 0;
        if (!isProcess && !entry.is_symlink()) {
            bindReadOnly(entry.path(), entry.path());
        }
    }
}

void composeKernelFiles(const fs::path& root, const UniqueFd& sys)
{
    makePlainDirectory(root / "proc");
    mountOn("proc", root / "proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr);
    shieldKernel(root / "proc");
    makePlainDirectory(root / "sys");
    makeReadOnly(sys.get());
    attachTree(sys, root / "sys");
}

void enterRoot(const fs::path& root)
{
    check(chdir(root.c_str()), "cannot enter the set's root");
    // The old root ends up under the new one and is dropped: no second directory is needed for it.
    check(syscall(SYS_pivot_root, ".", "."), "cannot move into the set's root");
    check(umount2(".", MNT_DETACH), "cannot drop the PC's root");
    check(chdir("/"), "cannot enter the set's root");
}

bool isInside(const fs::path& path, const fs::path& parent)
{
    return std::mismatch(parent.begin(), parent.end(), path.begin(), path.end()).first == parent.end();
}

void refuseReserved(const fs::path& directory)
{
    for (const char* reserved : {"/etc", "/dev", "/proc", "/sys", "/bin", "/sbin", "/lib", "/lib64"}) {
        if (isInside(directory, reserved)) {
            throw common::WrongUse(directory.string() + " cannot be bound: the set has a " + reserved +
                                   " of its own");
        }
    }
    for (const char* whole : {"/", "/tmp", "/run", "/var", "/opt", "/srv", "/home", "/prd"}) {
        if (directory == whole) {
            throw common::WrongUse(directory.string() +
                                   " cannot be bound as a whole: name a directory in it");
        }
    }
}

} // namespace

std::vector<fs::path> bindList(const std::vector<fs::path>& wanted, const std::vector<fs::path>& builtIn)
{
    std::vector<fs::path> all;
    for (const fs::path& path : wanted) {
        if (!fs::is_directory(path)) {
            throw common::WrongUse("-b " + common::inQuotes(path.string()) + " is not a directory");
        }
        all.push_back(fs::canonical(path));
        refuseReserved(all.back());
    }
    for (const fs::path& path : builtIn) {
        if (fs::is_directory(path)) {
            all.push_back(fs::canonical(path));
        }
    }
    std::sort(all.begin(), all.end()); // parents come before what lies in them
    std::vector<fs::path> list;
    for (const fs::path& path : all) {
        const bool covered = isInside(path, "/usr") || (!list.empty() && isInside(path, list.back()));
        if (!covered) {
            list.push_back(path);
        }
    }
    return list;
}

void composeRoot(const RootPlan& plan)
{
    check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "cannot separate the set's mounts");
    // Taken before the root is bound on itself: the set may lie in one of these trees.
    std::vector<UniqueFd> trees;
    for (const fs::path& path : plan.binds) {
        trees.push_back(copyTree(path));
    }
    const UniqueFd sys = copyTree("/sys");

    const fs::path root = plan.set.root();
    mountOn(root.c_str(), root, nullptr, MS_BIND, nullptr);
    composeUsr(plan, root);
    composeEtc(plan, root / "etc");
    composeDev(plan, root / "dev");
    composeKernelFiles(root, sys);
    for (size_t index = 0; index < trees.size(); ++index) {
        const fs::path target = root / plan.binds[index].relative_path();
        fs::create_directories(target);
        attachTree(trees[index], target);
    }
    if (plan.clock) {
        const fs::path page = root / fs::path(kClockPage).relative_path();
        touch(page);
        attachTree(copyTree(plan.set.clockFile()), page); // its owner, the platform, may change it
    }
    enterRoot(root);
}

} // namespace vset
