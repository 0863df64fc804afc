#include "vset/launcher/leader.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <linux/sched.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/plain-words.h"
#include "common/process/pipe.h"
#include "common/process/this-program.h"
#include "vset/launcher/init.h"
#include "vset/launcher/loop-slot.h"
#include "vset/launcher/set-clock.h"

namespace vset
{

namespace
{

struct End {
    int status = 0; // of PID 1, as a shell reports it
    PowerRequest request = PowerRequest::kNone;
};

// ---- Inside: the first steps of PID 1 ----

// Returns once the leader has made this process root of its namespaces, with this process's identifier as the
// PC sees it. If the leader dies, now or later, this process is killed, and the whole set with it.
pid_t waitForLeader(int leaderPipe)
{
    check(prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0), "cannot tie the set to its leader");
    pid_t self = 0;
    if (read(leaderPipe, &self, sizeof self) != sizeof self) {
        _exit(EXIT_FAILURE);
    }
    pollfd leader{leaderPipe, 0, 0};
    if (poll(&leader, 1, 0) != 0) { // it died before the tie was made
        _exit(EXIT_FAILURE);
    }
    return self;
}

[[noreturn]] void becomeInit(const InitPlan& plan, const SetLock& lock, int leaderPipe, int powerPipe)
{
    try {
        const pid_t self = waitForLeader(leaderPipe);
        const std::string name = plan.root.set.path().filename().string().substr(0, 63);
        check(sethostname(name.c_str(), name.size()), "cannot name the set");
        // Not earlier: who entered a set without its root would be on the PC's.
        const auto publish = [&] { lock.publish({self, plan.root.rootless, plan.root.clock}); };
        _exit(runInit(plan, powerPipe, publish));
    } catch (const std::exception& error) {
        note(common::plainWords(error));
        _exit(EXIT_FAILURE);
    }
}

// ---- Outside ----

pid_t cloneInit(bool rootless)
{
    clone_args arguments{};
    arguments.flags = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWUTS;
    if (rootless) {
        arguments.flags |= CLONE_NEWUSER;
    }
    arguments.exit_signal = SIGCHLD;
    const long process = syscall(SYS_clone3, &arguments, sizeof arguments);
    if (process >= 0) {
        return static_cast<pid_t>(process);
    }
    if (rootless) {
        failWithErrno(
            "this system does not let a plain user make a private root (user namespaces); "
            "allow it (sysctl kernel.unprivileged_userns_clone=1, "
            "kernel.apparmor_restrict_unprivileged_userns=0, user.max_user_namespaces) or use sudo");
    }
    failWithErrno("cannot make the set's namespaces (in a container? it needs CAP_SYS_ADMIN; -u may do)");
}

void mapCaller(pid_t init)
{
    const fs::path proc = "/proc/" + std::to_string(init);
    writeFile(proc / "setgroups", "deny");
    writeFile(proc / "uid_map", "0 " + std::to_string(geteuid()) + " 1");
    writeFile(proc / "gid_map", "0 " + std::to_string(getegid()) + " 1");
}

class Leader
{
public:
    Leader(const InitPlan& plan, const SetLock& lock) : plan_(plan), lock_(lock) {}

    // One life of the set, from boot to end.
    End boot();

private:
    int waitForEnd(pid_t init);

    const InitPlan& plan_;
    const SetLock& lock_;
};

End Leader::boot()
{
    plan_.root.set.wipeVolatile();
    std::error_code noLog;
    const auto logged = fs::file_size(plan_.root.set.root() / "var/log/platform.log", noLog);
    plan_.life.boot(noLog ? 0 : static_cast<int64_t>(logged));
    common::Pipe leader = common::makePipe("cannot make a pipe");
    common::Pipe power = common::makePipe("cannot make a pipe");
    const pid_t init = cloneInit(plan_.root.rootless);
    if (init == 0) {
        leader.writing.reset();
        power.reading.reset();
        becomeInit(plan_, lock_, leader.reading.get(), power.writing.get());
    }
    leader.reading.reset();
    power.writing.reset();
    if (plan_.root.rootless) {
        mapCaller(init);
    }
    check(write(leader.writing.get(), &init, sizeof init), "cannot start the set");

    End end;
    end.status = waitForEnd(init);
    char request = 0;
    if (read(power.reading.get(), &request, 1) == 1) {
        end.request = static_cast<PowerRequest>(request);
    }
    lock_.publish({});
    return end;
}

// Signals from the terminal reach the set's processes by themselves; others are handed on to PID 1, which is
// killed when it makes nothing of them.
int Leader::waitForEnd(pid_t init)
{
    constexpr timespec kPatience{20, 0}; // far beyond what PID 1 gives its command and its services
    bool isAsked = false;
    sigset_t handled = endingSignals();
    sigaddset(&handled, SIGCHLD);
    sigset_t previous;
    check(sigprocmask(SIG_BLOCK, &handled, &previous), "cannot block signals");
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(init, &status, WNOHANG)) == 0) {
        siginfo_t signal{};
        const int number = sigtimedwait(&handled, &signal, isAsked ? &kPatience : nullptr);
        if (number > 0 && number != SIGCHLD && signal.si_code != SI_KERNEL) {
            kill(init, number);
            isAsked = true;
        } else if (number < 0 && errno == EAGAIN) {
            kill(init, SIGKILL);
        }
    }
    check(ended, "cannot wait for the set");
    sigprocmask(SIG_SETMASK, &previous, nullptr);
    return shellStatus(status);
}

// From here on they are looked for: one that came before the set boots must not leave a temporary set behind.
void holdEndingSignals()
{
    const sigset_t signals = endingSignals();
    check(sigprocmask(SIG_BLOCK, &signals, nullptr), "cannot block signals");
}

// The signal that has come meanwhile.
std::optional<int> takeEndingSignal()
{
    const sigset_t signals = endingSignals();
    constexpr timespec kNow{0, 0};
    const int number = sigtimedwait(&signals, nullptr, &kNow);
    return number > 0 ? std::optional(number) : std::nullopt;
}

int liveThroughReboots(const InitPlan& plan, const SetLock& lock)
{
    Leader leader(plan, lock);
    while (true) {
        if (const std::optional<int> number = takeEndingSignal()) {
            return 128 + *number;
        }
        const End end = leader.boot();
        if (end.request != PowerRequest::kReboot) {
            return end.status;
        }
        note("the set reboots");
    }
}

void checkRootless(const RunOptions& options, bool rootless)
{
    if (!rootless) {
        return;
    }
    if (!options.rootless) {
        note("not root: running without root, as -u does (images are mounted with squashfuse, one user for "
             "all)");
    }
    const bool complete = access("/usr/bin/squashfuse", X_OK) == 0 && access("/dev/fuse", R_OK | W_OK) == 0;
    if (!complete) {
        note("images cannot be mounted in this set: install squashfuse and fuse3, "
             "and make /dev/fuse accessible (chmod 0666 /dev/fuse), or run it as root");
    }
}

// What a set has to see of the PC at the same place. A kit stands alone, wherever it was built.
std::vector<fs::path> ownDirectories(const fs::path& tools)
{
    if (!kitDirectory().empty()) {
        return {tools};
    }
    const BuildTree tree = buildTree();
    return {tree.source, tree.build, tools};
}

// The dynamic loader takes both characters for the end of a preloaded library's name.
void checkToolsPath(const fs::path& tools)
{
    if (tools.string().find_first_of(" :") != std::string::npos) {
        throw Error("the set's clock cannot be used from " + tools.string() +
                    ": move vset to a path without blanks and colons");
    }
}

// Removes a temporary set when the run is over, however it is left.
class TemporarySet
{
public:
    explicit TemporarySet(const SetDirectory* set) : set_(set) {}
    TemporarySet(const TemporarySet&) = delete;
    TemporarySet& operator=(const TemporarySet&) = delete;
    ~TemporarySet()
    {
        if (set_ != nullptr) {
            set_->remove();
        }
    }

private:
    const SetDirectory* set_;
};

} // namespace

int runSet(const RunOptions& options)
{
    if (!options.set && options.command.empty()) {
        throw common::WrongUse("a temporary set needs a command after --");
    }
    const bool rootless = options.rootless || geteuid() != 0;
    const fs::path tools = common::directoryOfThisProgram();
    const std::vector<fs::path> binds = bindList(options.binds, ownDirectories(tools));
    checkRootless(options, rootless);
    holdEndingSignals();

    const SetDirectory set = options.set ? SetDirectory::open(*options.set) : SetDirectory::makeTemporary();
    const TemporarySet temporary(options.set ? nullptr : &set);
    std::optional<SetLock> lock = set.lock();
    set.complete();
    set.giveToUsers(rootless);
    const LifeRecord life(set.path());
    // The television always has a clock that can be set; a command gets it when asked, because a preloaded
    // library is not every program's (a sanitizer's, a static one's) liking.
    const bool clock = options.command.empty() || options.clockRate.has_value();
    if (clock) {
        checkToolsPath(tools);
        resetClock(set, options.clockRate.value_or(1.0), rootless);
    }

    std::optional<LoopSlot> slot;
    if (!rootless) {
        slot = LoopSlot::take();
    }
    std::error_code error;
    InitPlan plan{{set, rootless, binds, options.loopNodes, slot ? slot->base() : 0, clock},
                  options.command,
                  options.cutAtWrite,
                  tools,
                  fs::current_path(error),
                  life};
    const int status = liveThroughReboots(plan, *lock);
    life.off(status);
    lock.reset(); // the cleaning child must not hold it
    if (slot) {
        slot->cleanInBackground();
    }
    return status;
}

} // namespace vset
