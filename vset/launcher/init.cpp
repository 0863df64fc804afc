#include "vset/launcher/init.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <optional>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "common/daemon/places.h"
#include "common/plain-words.h"
#include "common/process/pipe.h"
#include "common/process/program.h"
#include "common/terminal/visible-text.h"
#include "vset/client/set-file.h"
#include "vset/launcher/crash-order.h"
#include "vset/platformd/contract.h"
#include "vset/write-watch/write-watch.h"

namespace vset
{

namespace
{

constexpr int kReadyTimeoutMs = 20000; // a loaded machine with sanitizers takes seconds
constexpr int kGraceMs = 5000;         // between asking a command to end and ending the set around it
constexpr int kShutdownMs = 1000;      // for the television's services to end by themselves

// A service that crashes is started again as on a television; one that goes on crashing is of no use.
constexpr std::chrono::milliseconds kRestartDelay{100};
constexpr std::chrono::seconds kCrashWindow{10};
constexpr size_t kMostCrashes = 5; // in the window

constexpr int kExitPowerCut = 3; // of PID 1, and so of `vset run`

constexpr const char* kBusConfigurationPath = "/etc/vset-bus.conf";
constexpr const char* kBusConfiguration =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>systemd:</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus"/>
    <allow send_destination="org.pellor.platform"/>
    <deny send_destination="org.pellor.psmount"/>
  </policy>
  <policy user="platform">
    <allow own="org.pellor.platform"/>
  </policy>
  <policy user="fwupdate">
    <allow send_destination="org.pellor.psmount" send_interface="org.pellor.psmount.Mounts"/>
  </policy>
  <policy user="root">
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_destination="org.pellor.psmount"/>
  </policy>
  <include ignore_missing="yes">/usr/share/dbus-1/system.d/org.pellor.tv.tarnwick.conf</include>
</busconfig>
)";

struct Identity {
    uid_t user;
    gid_t group;
    bool noNewPrivileges;
};
constexpr Identity kRoot{0, 0, false};
constexpr Identity kPlatform{kPlatformUser, kSystemGroup, true};
constexpr Identity kUpdate{kUpdateUser, kSystemGroup, true};

// ---- Processes ----

sigset_t handledSignals()
{
    sigset_t signals = endingSignals();
    sigaddset(&signals, SIGCHLD);
    return signals;
}

// The set was asked to end before it was up.
struct EndedAtStart {
    int signal;
};

void becomeUser(const Identity& identity, bool rootless)
{
    if (identity.noNewPrivileges) {
        check(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "cannot give up privileges");
    }
    if (rootless || identity.user == 0) {
        return; // there is only one user without root
    }
    check(setgroups(0, nullptr), "cannot leave the groups");
    check(setresgid(identity.group, identity.group, identity.group), "cannot change the group");
    check(setresuid(identity.user, identity.user, identity.user), "cannot change the user");
}

fs::path outputOf(const std::string& service)
{
    return "/var/log/" + service + ".out";
}

void putEnvironment(const char* name, const std::string& value)
{
    check(setenv(name, value.c_str(), 1), "cannot change the environment");
}

// As the PC's own service manager hands over a socket: right behind the standard streams.
void handOverSocket(int socket)
{
    constexpr int kPlace = STDERR_FILENO + 1;
    check(socket == kPlace ? fcntl(socket, F_SETFD, 0) : dup2(socket, kPlace), "cannot hand over a socket");
    putEnvironment("LISTEN_PID", std::to_string(getpid()));
    putEnvironment("LISTEN_FDS", "1");
}

// Standard streams of a service: nothing to read, everything it says into its own file.
void redirectToLog(const std::string& name)
{
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const UniqueFd log = openOwnFile(outputOf(name), O_WRONLY | O_CREAT | O_APPEND);
    dup2(null, STDIN_FILENO);
    dup2(log.get(), STDOUT_FILENO);
    dup2(log.get(), STDERR_FILENO);
}

// What a service has said last, from byte `begin` of its file on: what is older is of an earlier start. A
// temporary set is gone by the time that somebody looks.
std::string lastLine(const std::string& service, off_t begin)
{
    constexpr std::string_view kOurs = "vset: "; // of a service that could not be run
    std::string last = lastLineOf(outputOf(service), begin);
    last.erase(0, last.rfind(kOurs, 0) == 0 ? kOurs.size() : 0);
    return last.empty() ? "it said nothing" : common::visible(last);
}

std::string endOf(const char* name, int status)
{
    if (WIFSIGNALED(status)) {
        return std::string(name) + " was ended by signal " + std::to_string(WTERMSIG(status));
    }
    return std::string(name) + " ended with status " + std::to_string(WEXITSTATUS(status));
}

// The wait status of a process that has ended or is about to; nothing when it goes on all the same.
std::optional<int> endSoon(pid_t process)
{
    constexpr int kTickMs = 10;
    for (int waited = 0; waited < kShutdownMs; waited += kTickMs) {
        int status = 0;
        if (waitpid(process, &status, WNOHANG) == process) {
            return status;
        }
        poll(nullptr, 0, kTickMs);
    }
    return std::nullopt;
}

// Whether it has ended of its own accord, for a reason that it tells in its file. Who is asked to end by
// somebody's signal has none, whether it dies of that or says goodbye.
bool hasReason(int status)
{
    return WIFEXITED(status) && WEXITSTATUS(status) != 0;
}

// A process that is to be watched hands its write filter over here; none when it is not.
struct WatchSocket {
    UniqueFd process;
    UniqueFd watcher;
};

WatchSocket makeWatchSocket()
{
    int ends[2];
    check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), "cannot make a socket");
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

// ---- The set's life ----

// What a service gets from PID 1; -1: nothing.
struct Inherited {
    int descriptor = -1;
    int socket = -1; // at its usual place: see handOverSocket()
};

using Clock = std::chrono::steady_clock;

class Init
{
public:
    Init(const InitPlan& plan, int powerPipe) : plan_(plan), powerPipe_(powerPipe) {}
    int run(const std::function<void()>& onUp);

private:
    struct Service {
        const char* name;
        pid_t process = -1;
        void (Init::*startAgain)() = nullptr; // none: the set is of no use without it
        std::optional<std::chrono::milliseconds> downtime = std::nullopt; // its crash was ordered
        std::optional<Clock::time_point> due = std::nullopt;              // when it is to be started again
        std::deque<Clock::time_point> crashes = {};                       // not ordered, the latest ones
        off_t saidBefore = 0; // bytes of its output when it was started
    };

    void start(Service& service, const std::vector<std::string>& arguments, const Identity& identity,
               bool onClock, Inherited inherited = {}, const WatchSocket& watch = {});
    // What tells, by one byte, that the service which was started can be used.
    UniqueFd startTelling(Service& service, std::vector<std::string> arguments, const char* fdOption,
                          const Identity& identity, bool onClock, int socket = -1);
    void waitUntilReady(const Service& service, const UniqueFd& ready) const;
    UniqueFd listenForBus() const;
    UniqueFd startBus(const UniqueFd& socket);
    void startServices();
    std::vector<std::string> mountServiceCommand() const;
    void restartMountService();
    std::vector<std::string> platformCommand() const;
    UniqueFd startPlatform();
    void restartPlatform();
    void startCommand(const WatchSocket& watch);
    void startMain();

    int live();
    // Each returns the exit status of PID 1 once the set is to end.
    std::optional<int> handleSignal(const signalfd_siginfo& signal);
    std::optional<int> reap();
    std::optional<int> onMainEnd(int status);
    std::optional<int> onServiceEnd(Service& service, int status);
    std::string letCrash(const CrashOrder& order);
    std::optional<std::chrono::milliseconds> downtimeAfter(Service& service, int status) const;
    void startDue();
    int waitLimit() const;
    void onWrite(short events);
    void tellWrites() const;
    [[noreturn]] void cutPower(const HardwareWrite& write);
    int powerDown(PowerRequest request);
    int endTelevision(int status);

    const InitPlan& plan_;
    int powerPipe_;
    mode_t callersMask_ = 022;
    UniqueFd signals_;
    UniqueFd endings_; // the same without those of children, for the time of the start
    Service bus_{"dbus-daemon"};
    Service mounts_{"psmountd", -1, &Init::restartMountService};
    Service platform_{"platformd", -1, &Init::restartPlatform};
    Service main_{"tarnwick"};
    std::optional<int> endSignal_; // the command was asked to end; the set ends soon in any case
    Clock::time_point endTime_;    // then
    std::optional<CrashOrders> orders_;
    std::optional<WriteWatch> watch_;
    unsigned int writes_ = 0;
};

void Init::start(Service& service, const std::vector<std::string>& arguments, const Identity& identity,
                 bool onClock, Inherited inherited, const WatchSocket& watch)
{
    struct stat output = {};
    service.saidBefore = stat(outputOf(service.name).c_str(), &output) == 0 ? output.st_size : 0;
    service.process = fork();
    check(service.process, std::string("cannot start ") + service.name);
    if (service.process != 0) {
        return;
    }
    try {
        setsid(); // Ctrl-C at the terminal is for the command, not for the services
        redirectToLog(service.name);
        if (inherited.descriptor >= 0) {
            fcntl(inherited.descriptor, F_SETFD, 0);
        }
        if (inherited.socket >= 0) {
            handOverSocket(inherited.socket);
        }
        if (!onClock) {
            unsetenv("LD_PRELOAD");
        }
        prepareForProgram();
        becomeUser(identity, plan_.root.rootless);
        if (watch.process) {
            submitToWatch(watch.process.get());
        }
        executeCommand(arguments);
    } catch (const std::exception& error) {
        note(common::plainWords(error));
        _exit(126);
    }
}

UniqueFd Init::startTelling(Service& service, std::vector<std::string> arguments, const char* fdOption,
                            const Identity& identity, bool onClock, int socket)
{
    constexpr int kOutOfTheWay = 10; // of a socket's place
    common::Pipe ready = common::makePipe("cannot make a pipe");
    const UniqueFd told(
        check(fcntl(ready.writing.get(), F_DUPFD_CLOEXEC, kOutOfTheWay), "cannot make a pipe"));
    arguments.push_back(fdOption + std::to_string(told.get()));
    start(service, arguments, identity, onClock, {told.get(), socket});
    return std::move(ready.reading);
}

void Init::waitUntilReady(const Service& service, const UniqueFd& ready) const
{
    pollfd waiting[] = {{ready.get(), POLLIN, 0}, {endings_.get(), POLLIN, 0}};
    int events = 0;
    do {
        events = poll(waiting, std::size(waiting), kReadyTimeoutMs);
    } while (events < 0 && errno == EINTR);
    signalfd_siginfo signal{};
    if (waiting[1].revents != 0 && read(endings_.get(), &signal, sizeof signal) == sizeof signal) {
        throw EndedAtStart{static_cast<int>(signal.ssi_signo)};
    }
    char byte = 0;
    if (waiting[0].revents != 0 && read(ready.get(), &byte, 1) == 1) {
        return;
    }
    const std::string said = lastLine(service.name, service.saidBefore);
    if (events == 0) {
        throw Error(std::string(service.name) + " does not get ready: " + said);
    }
    const std::optional<int> status = endSoon(service.process);
    const bool isBySignal = status && WIFSIGNALED(*status);
    throw Error((isBySignal ? endOf(service.name, *status) : std::string(service.name) + " ended") +
                " at its start: " + said);
}

// Whoever connects before there is a bus behind it waits for it.
UniqueFd Init::listenForBus() const
{
    // A set without root cannot tell the PC's other users from its own root: they do not get so far.
    const mode_t mode = plan_.root.rootless ? 0700 : 0755;
    if (mkdir("/run/dbus", mode) != 0 && errno != EEXIST) {
        failWithErrno("cannot make /run/dbus");
    }
    constexpr int kMostWaiting = 30; // as many as the bus allows for a socket of its own
    UniqueFd socket(check(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "cannot make a socket"));
    const sockaddr_un address{AF_UNIX, "/run/dbus/system_bus_socket"};
    check(bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
          std::string("cannot bind ") + address.sun_path);
    check(chmod(address.sun_path, 0777), std::string("cannot open ") + address.sun_path + " for all");
    check(listen(socket.get(), kMostWaiting), std::string("cannot listen on ") + address.sun_path);
    return socket;
}

UniqueFd Init::startBus(const UniqueFd& socket)
{
    writeFile(kBusConfigurationPath, kBusConfiguration);
    return startTelling(
        bus_,
        {"dbus-daemon", std::string("--config-file=") + kBusConfigurationPath, "--nofork", "--nopidfile"},
        "--print-address=", kRoot, false, socket.get());
}

// All at once: the bus's socket is there for its clients before the bus, and neither of these needs the
// other. The first is the one that takes longest.
void Init::startServices()
{
    const UniqueFd socket = listenForBus();
    const UniqueFd platformReady = startPlatform();
    const UniqueFd busReady = startBus(socket);
    const UniqueFd mountsReady = startTelling(mounts_, mountServiceCommand(), "--ready-fd=", kRoot, false);
    waitUntilReady(bus_, busReady);
    waitUntilReady(mounts_, mountsReady);
    if (platformReady) {
        waitUntilReady(platform_, platformReady);
    }
}

std::vector<std::string> Init::mountServiceCommand() const
{
    return {plan_.tools / "psmountd",
            plan_.root.rootless ? "--fuse" : "--loop-base=" + std::to_string(plan_.root.loopBase)};
}

// Nobody waits for a service that is started again: PID 1 has the other processes to look after.
void Init::restartMountService()
{
    start(mounts_, mountServiceCommand(), kRoot, false);
}

std::vector<std::string> Init::platformCommand() const
{
    std::vector<std::string> command{plan_.tools / "platformd"};
    if (!plan_.television()) {
        command.emplace_back("--no-power-cycle");
    }
    return command;
}

UniqueFd Init::startPlatform()
{
    const fs::path program = plan_.tools / "platformd";
    if (!fs::exists(program)) {
        note(program.string() + " is not built: the set runs without platform services");
        return UniqueFd();
    }
    return startTelling(platform_, platformCommand(), "--ready-fd=", kPlatform, true);
}

void Init::restartPlatform()
{
    start(platform_, platformCommand(), kPlatform, true);
}

// For the person at the terminal, and for programs that read it there.
void announceConsole()
{
    const std::string url = lastLineOf(kConsoleUrlPath);
    if (url.empty()) {
        return;
    }
    std::printf("console: %s\n", common::visible(url).c_str());
    std::fflush(stdout);
}

void Init::startCommand(const WatchSocket& watch)
{
    main_.name = plan_.command[0].c_str();
    main_.process = fork();
    check(main_.process, std::string("cannot start ") + main_.name);
    if (main_.process != 0) {
        return;
    }
    try {
        prepareForProgram();
        umask(callersMask_);
        if (chdir(plan_.workingDirectory.c_str()) != 0) {
            check(chdir("/"), "cannot enter /");
        }
        if (watch.process) {
            submitToWatch(watch.process.get());
        }
        executeCommand(plan_.command);
    } catch (const std::exception& error) {
        note(common::plainWords(error));
        _exit(126);
    }
}

void Init::startMain()
{
    WatchSocket watch = plan_.cutAtWrite ? makeWatchSocket() : WatchSocket();
    if (plan_.television()) {
        start(main_, {common::places::kDaemon}, kUpdate, true, {}, watch);
        announceConsole();
    } else {
        startCommand(watch);
    }
    watch.process.reset(); // so that its end is seen
    if (!watch.watcher) {
        return;
    }
    try {
        watch_.emplace(watch.watcher.get());
    } catch (const std::exception& error) { // a command has told the reason itself
        throw Error(error.what() +
                    (plan_.television() ? ": " + lastLine(main_.name, main_.saidBefore) : std::string()));
    }
}

int Init::run(const std::function<void()>& onUp)
{
    const sigset_t handled = handledSignals();
    check(sigprocmask(SIG_BLOCK, &handled, nullptr), "cannot block signals");
    signals_ = UniqueFd(check(signalfd(-1, &handled, SFD_CLOEXEC), "cannot receive signals"));
    const sigset_t ending = endingSignals();
    endings_ = UniqueFd(check(signalfd(-1, &ending, SFD_CLOEXEC), "cannot receive signals"));
    callersMask_ = umask(022); // of the set's files; the command gets its own back
    composeRoot(plan_.root);
    if (plan_.television() && access(common::places::kDaemon, X_OK) != 0) {
        throw Error("the set has no daemon: put it there with `vset new " +
                    common::inShell(plan_.root.set.path().string()) + "`");
    }
    cleanEnvironment(plan_.tools, plan_.root.clock);
    try {
        startServices();
    } catch (const EndedAtStart& end) {
        return 128 + end.signal;
    }
    orders_.emplace();
    onUp();
    startMain();
    plan_.life.up(!plan_.television());
    return live();
}

// Milliseconds until there is something to do without anything that happens; -1 for none.
int Init::waitLimit() const
{
    std::optional<Clock::time_point> first;
    if (endSignal_) {
        first = endTime_;
    }
    for (const Service* service : {&mounts_, &platform_}) {
        if (service->due && (!first || *service->due < *first)) {
            first = service->due;
        }
    }
    if (!first) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*first - Clock::now()).count();
    return static_cast<int>(std::max<decltype(left)>(left, 0));
}

int Init::live()
{
    while (true) {
        pollfd waiting[] = {{signals_.get(), POLLIN, 0},
                            {watch_ ? watch_->descriptor() : -1, POLLIN, 0},
                            {orders_->descriptor(), POLLIN, 0}};
        poll(waiting, std::size(waiting), waitLimit());
        if (endSignal_ && Clock::now() >= endTime_) {
            return 128 + *endSignal_; // the command took no notice
        }
        startDue();
        if (waiting[1].revents != 0) {
            onWrite(waiting[1].revents);
        }
        if (waiting[2].revents != 0) {
            orders_->take([this](const CrashOrder& order) { return letCrash(order); });
        }
        signalfd_siginfo signal{};
        if (waiting[0].revents == 0 || read(signals_.get(), &signal, sizeof signal) != sizeof signal) {
            continue;
        }
        if (const std::optional<int> status = handleSignal(signal)) {
            return *status;
        }
    }
}

// ---- Crashes ----

std::string Init::letCrash(const CrashOrder& order)
{
    for (Service* service : {&mounts_, &platform_}) {
        if (order.service != service->name) {
            continue;
        }
        if (service->process < 0) {
            return std::string(service->name) + " does not run at the moment";
        }
        service->downtime = order.downtime;
        kill(service->process, SIGKILL);
        onServiceEnd(*service, waitFor(service->process)); // who has ordered it finds it gone
        return "";
    }
    return "the set cannot do without \"" + order.service + "\": platformd and psmountd can crash";
}

// How long the set does without a service that has ended so; nothing when it is not started again: when it
// has a reason to end, when it goes on crashing, and in a set of a command, which may be trying
// just that.
std::optional<std::chrono::milliseconds> Init::downtimeAfter(Service& service, int status) const
{
    if (service.startAgain == nullptr || hasReason(status)) {
        return std::nullopt;
    }
    if (service.downtime) {
        return std::exchange(service.downtime, std::nullopt);
    }
    if (!plan_.television()) {
        return std::nullopt;
    }
    const Clock::time_point now = Clock::now();
    service.crashes.push_back(now);
    while (now - service.crashes.front() > kCrashWindow) {
        service.crashes.pop_front();
    }
    return service.crashes.size() < kMostCrashes ? std::optional(kRestartDelay) : std::nullopt;
}

void Init::startDue()
{
    for (Service* service : {&mounts_, &platform_}) {
        if (!service->due || *service->due > Clock::now()) {
            continue;
        }
        service->due.reset();
        (this->*service->startAgain)();
    }
}

void Init::onWrite(short events)
{
    if ((events & POLLIN) == 0) {
        watch_.reset(); // nobody is left who could write
        return;
    }
    const std::optional<HardwareWrite> write = watch_->next();
    if (!write) {
        return;
    }
    if (++writes_ == plan_.cutAtWrite) {
        cutPower(*write);
    }
    watch_->allow(*write);
}

// Nobody gets to do anything any more: not even to see the write that waits fail, as it would when the watch
// ends with this process.
void Init::cutPower(const HardwareWrite& write)
{
    kill(-1, SIGKILL);
    plan_.life.cut(writes_, write);
    note("the power was cut at write " + std::to_string(writes_) + " (" + write.call + " to " + write.path +
         ")");
    _exit(kExitPowerCut);
}

std::optional<int> Init::handleSignal(const signalfd_siginfo& signal)
{
    const int number = static_cast<int>(signal.ssi_signo);
    if (number == SIGCHLD) {
        return reap();
    }
    if (plan_.television()) {
        return endTelevision(128 + number);
    }
    // From the terminal the command has had it as well, and it is the command's to end or to go on.
    if (signal.ssi_code != SI_KERNEL && !endSignal_) {
        kill(main_.process, number);
        endSignal_ = number;
        endTime_ = Clock::now() + std::chrono::milliseconds(kGraceMs);
    }
    return std::nullopt;
}

std::optional<int> Init::reap()
{
    int status = 0;
    for (pid_t process = 0; (process = waitpid(-1, &status, WNOHANG)) > 0;) {
        if (process == main_.process) {
            if (const std::optional<int> end = onMainEnd(status)) {
                return end;
            }
        }
        for (Service* service : {&bus_, &mounts_, &platform_}) {
            if (process != service->process) {
                continue;
            }
            if (const std::optional<int> end = onServiceEnd(*service, status)) {
                return end;
            }
        }
    }
    return std::nullopt;
}

void Init::tellWrites() const
{
    if (plan_.cutAtWrite) {
        plan_.life.writes(writes_);
        note(std::string(plan_.television() ? "the daemon" : main_.name) + " made " +
             std::to_string(writes_) + " writes to hardware");
    }
}

std::optional<int> Init::onMainEnd(int status)
{
    tellWrites();
    plan_.life.daemonEnded(status);
    if (!plan_.television()) {
        return shellStatus(status);
    }
    main_.process = -1;
    note(endOf("tarnwick", status)); // the television stays on
    return std::nullopt;
}

std::optional<int> Init::onServiceEnd(Service& service, int status)
{
    service.process = -1;
    const bool askedByPlatform = plan_.television() && &service == &platform_ && WIFEXITED(status);
    if (askedByPlatform && WEXITSTATUS(status) == kExitPowerOff) {
        return powerDown(PowerRequest::kPowerOff);
    }
    if (askedByPlatform && WEXITSTATUS(status) == kExitReboot) {
        return powerDown(PowerRequest::kReboot);
    }
    if (const auto downtime = downtimeAfter(service, status)) {
        service.due = Clock::now() + *downtime;
        note(endOf(service.name, status) + " and is started again in " + std::to_string(downtime->count()) +
             " ms");
        return std::nullopt;
    }
    const std::string file = (plan_.root.set.root() / "var/log" / service.name).string() + ".out";
    note(endOf(service.name, status) + (hasReason(status)    ? ", see " + file
                                        : plan_.television() ? ": the set cannot do without it"
                                                             : " and stays away"));
    if (plan_.television()) {
        return endTelevision(EXIT_FAILURE);
    }
    return std::nullopt; // the command may be testing just that
}

int Init::powerDown(PowerRequest request)
{
    const char byte = static_cast<char>(request);
    check(write(powerPipe_, &byte, 1), "cannot report the power request");
    return endTelevision(EXIT_SUCCESS);
}

int Init::endTelevision(int status)
{
    if (main_.process > 0) {
        tellWrites();
    }
    kill(-1, SIGTERM);
    for (int waited = 0; waited < kShutdownMs; waited += 10) {
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        if (waitpid(-1, nullptr, WNOHANG) < 0) {
            break; // no child is left
        }
        poll(nullptr, 0, 10);
    }
    return status;
}

} // namespace

void prepareForProgram()
{
    // Services may leave by other ways than exec's closing; nothing of the launcher may reach a program.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int capability : {CAP_SYS_MODULE, CAP_SYS_TIME, CAP_SYS_RAWIO, CAP_SYS_BOOT}) {
        prctl(PR_CAPBSET_DROP, capability, 0, 0,
              0); // refused in a user namespace on some kernels: not needed there
    }
}

void cleanEnvironment(const fs::path& tools, bool clock)
{
    std::vector<std::string> doomed;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (std::strncmp(*entry, "DBUS_", 5) == 0) {
            doomed.emplace_back(*entry, std::strcspn(*entry, "="));
        }
    }
    for (const char* directory : {"TMPDIR", "XDG_RUNTIME_DIR", "HOME"}) {
        const char* value = std::getenv(directory);
        if (value != nullptr && access(value, F_OK) != 0) {
            doomed.emplace_back(directory);
        }
    }
    for (const std::string& name : doomed) {
        unsetenv(name.c_str());
    }
    if (std::getenv("HOME") == nullptr) {
        putEnvironment("HOME", "/");
    }
    if (std::getenv("PATH") == nullptr) {
        putEnvironment("PATH", "/usr/local/bin:/usr/sbin:/usr/bin");
    }
    if (!clock) {
        return;
    }
    putEnvironment("LD_PRELOAD", (tools / "libvset-clock.so").string());
    // Programs with the address sanitizer want its run-time first; ours in front does it no harm.
    const char* options = std::getenv("ASAN_OPTIONS");
    putEnvironment("ASAN_OPTIONS",
                   (options != nullptr ? std::string(options) + ":" : "") + "verify_asan_link_order=0");
}

namespace
{

std::string adviceOnMissing(const std::string& program)
{
    const char* const path = std::getenv("PATH");
    const std::string directories = ":" + std::string(path != nullptr ? path : "") + ":";
    const bool isSearched = program.find('/') == std::string::npos;
    if (isSearched && directories.find(":/usr/bin:") == std::string::npos) {
        return " (PATH is " + common::inQuotes(directories.substr(1, directories.size() - 2)) +
               ", without /usr/bin)";
    }
    return " (in the set; a directory of the PC is made visible with -b)";
}

} // namespace

void executeCommand(const std::vector<std::string>& command)
{
    const std::vector<char*> arguments = common::argumentsOf(command);
    execvp(arguments[0], arguments.data());
    const int error = errno;
    const bool missing = error == ENOENT;
    note("cannot run " + common::shortened(command[0]) + ": " + std::strerror(error) +
         (missing ? adviceOnMissing(command[0]) : ""));
    _exit(missing ? 127 : 126);
}

int runInit(const InitPlan& plan, int powerPipe, const std::function<void()>& onUp)
{
    return Init(plan, powerPipe).run(onUp);
}

} // namespace vset
