#include "tools/fwmod/check/examiner/machine/machine.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <linux/sched.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

#include "common/files/file-copy.h"
#include "tools/fwmod/check/examiner/machine/plain-files.h"

namespace fwmod::examiner
{

namespace fs = std::filesystem;

namespace
{
constexpr const char* kRoom = "/srv/machines";
constexpr const char* kDaemonUser = "fwupdate";

void check(long result, const std::string& what)
{
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

void bind(const fs::path& source, const fs::path& target)
{
    check(mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr),
          "cannot put " + source.string() + " at " + target.string());
}

void bindReadOnly(const fs::path& source, const fs::path& target)
{
    bind(source, target);
    check(mount(nullptr, target.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
          "cannot make " + target.string() + " read-only");
}

// No core files, and no more open files than a service has: both by values that a library which sets them is
// seen by.
void limitAsService()
{
    constexpr rlim_t kFiles = 1024;
    rlimit core = {};
    rlimit files = {};
    getrlimit(RLIMIT_CORE, &core);
    getrlimit(RLIMIT_NOFILE, &files);
    core.rlim_cur = 1; // byte: less than any core file has
    core.rlim_max = std::max<rlim_t>(core.rlim_max, 1);
    if (setrlimit(RLIMIT_CORE, &core) != 0) {
        core = {0, 0};
        setrlimit(RLIMIT_CORE, &core);
    }
    files.rlim_cur = std::min(files.rlim_cur, kFiles);
    setrlimit(RLIMIT_NOFILE, &files);
}

// As the daemon runs: its user where there is one, and nothing to gain.
void becomeDaemon()
{
    limitAsService();
    check(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "cannot give up privileges");
    std::ifstream mapFile("/proc/self/uid_map");
    unsigned long inside = 0;
    unsigned long outside = 0;
    unsigned long count = 0;
    mapFile >> inside >> outside >> count;
    if (count == 1) {
        return; // a set without root has one user
    }
    const passwd* const user = getpwnam(kDaemonUser);
    if (user == nullptr) {
        throw std::runtime_error(std::string("the set has no user ") + kDaemonUser);
    }
    check(setgroups(0, nullptr), "cannot leave the groups");
    check(setresgid(user->pw_gid, user->pw_gid, user->pw_gid), "cannot change the group");
    check(setresuid(user->pw_uid, user->pw_uid, user->pw_uid), "cannot change the user");
    check(prctl(PR_SET_DUMPABLE, 1, 0, 0, 0), "cannot be looked at");
}

pid_t cloneWithNamespaces()
{
    clone_args arguments{};
    arguments.flags = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC;
    arguments.exit_signal = SIGCHLD;
    return static_cast<pid_t>(syscall(SYS_clone3, &arguments, sizeof arguments));
}

// Process numbers differ between boots, so that one which a library left in a lock file is not, by chance,
// its own again. A wish: a kernel without checkpoints has no such file.
void chooseProcessNumber(unsigned int boot)
{
    std::ofstream("/proc/sys/kernel/ns_last_pid") << 300 + boot * 1000 % 30000;
}
} // namespace

void makeMachineRoom(const std::string& imageDirectory)
{
    if (!imageDirectory.empty()) {
        bindReadOnly(imageDirectory, imageDirectory);
    }
    fs::create_directories(kRoom);
    check(mount("machines", kRoom, "tmpfs", 0, "mode=0755"), "cannot make memory for the experiments");
}

void copyEntry(const fs::path& from, const fs::path& to)
{
    const fs::file_status status = fs::symlink_status(from);
    if (fs::is_directory(status)) {
        fs::create_directories(to);
    } else if (fs::is_symlink(status)) {
        fs::copy_symlink(from, to);
    } else if (fs::is_fifo(status)) {
        check(mkfifo(to.c_str(), 0600), "cannot make the pipe " + to.string());
    } else if (fs::is_regular_file(status)) {
        common::copyFile(from, to);
    } else {
        return; // a socket: nobody listens to it any more
    }
    struct stat file = {};
    check(lstat(from.c_str(), &file), "cannot look at " + from.string());
    if (geteuid() == 0 && lchown(to.c_str(), file.st_uid, file.st_gid) != 0) {
        check(-1, "cannot give away " + to.string());
    }
    if (!fs::is_symlink(status)) {
        check(chmod(to.c_str(), file.st_mode & 07777), "cannot set the mode of " + to.string());
    }
}

void copyTree(const fs::path& from, const fs::path& to)
{
    copyEntry(from, to);
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(from)) {
        copyEntry(entry.path(), to / entry.path().lexically_relative(from));
    }
}

Machine::Machine()
{
    std::string name = std::string(kRoom) + "/XXXXXX";
    check(mkdtemp(name.data()) != nullptr ? 0 : -1, "cannot make a machine");
    directory_ = name;
    check(chmod(name.c_str(), 0755), "cannot make a machine");
    copyTree("/var", directory_ / "var");
}

Machine::~Machine()
{
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
}

void Machine::replaceDirectory(const fs::path& original, const fs::path& replacement)
{
    original_ = original;
    replacement_ = replacement;
}

fs::path Machine::file(const fs::path& path) const
{
    return directory_ / path.relative_path();
}

std::size_t Machine::stateOfHardware() const
{
    std::size_t state = 0;
    std::error_code none;
    for (const fs::path& path : everythingBelow(file("/var/lib"))) {
        const std::string text = path.string() + fs::read_symlink(path, none).string() + contentOf(path);
        state += std::hash<std::string>()(text); // a sum: the order of a directory's entries does not count
    }
    return state;
}

void Machine::compose(const fs::path& boot) const
{
    struct Volatile {
        const char* place;
        mode_t mode;
    };
    constexpr Volatile kVolatile[] = {{"tmp", 01777}, {"run", 0777}, {"dev/shm", 01777}};
    (isReadOnly_ ? bindReadOnly : bind)(directory_ / "var", "/var");
    for (const Volatile& entry : kVolatile) {
        fs::create_directories(boot / entry.place);
        check(chmod((boot / entry.place).c_str(), entry.mode), "cannot make a machine");
    }
    if (fs::exists("/run/vset-clock")) {
        std::ofstream(boot / "run/vset-clock").close();
        bind("/run/vset-clock", boot / "run/vset-clock");
    }
    if (fs::exists("/run/dbus")) {
        fs::create_directory(boot / "run/dbus");
        bind("/run/dbus", boot / "run/dbus");
    }
    for (const Volatile& entry : kVolatile) {
        bind(boot / entry.place, fs::path("/") / entry.place);
    }
    if (!original_.empty()) {
        bindReadOnly(replacement_, original_);
    }
    check(mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr), "cannot mount /proc");
}

void Machine::keep(const fs::path& boot, const std::function<void()>& worker, int* status) const
{
    try {
        check(prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0), "cannot be tied to the examiner");
        compose(boot);
        chooseProcessNumber(boots_);
        const pid_t process = fork();
        check(process, "cannot start a worker");
        if (process == 0) {
            setsid(); // as a service: what the library sends to its group reaches nobody else
            becomeDaemon();
            worker();
            _exit(EXIT_SUCCESS);
        }
        for (pid_t ended = 0; ended != process;) { // and reap what it has left behind
            ended = waitpid(-1, status, 0);
        }
        _exit(EXIT_SUCCESS);
    } catch (const std::exception& error) {
        dprintf(STDERR_FILENO, "control-examiner: %s\n", error.what());
        _exit(EXIT_FAILURE);
    }
}

pid_t Machine::boot(const std::function<void()>& worker, int* status)
{
    const fs::path boot = directory_ / ("boot" + std::to_string(++boots_));
    const pid_t keeper = cloneWithNamespaces();
    check(keeper, "cannot make the namespaces of an experiment");
    if (keeper == 0) {
        keep(boot, worker, status);
    }
    return keeper;
}

void takeHardware(const Machine& from, const Machine& to)
{
    fs::remove_all(to.file("/var"));
    copyTree(from.file("/var"), to.file("/var"));
}
} // namespace fwmod::examiner
