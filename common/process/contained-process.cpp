#include "common/process/contained-process.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <set>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "common/errors.h"
#include "common/process/interruption.h"
#include "common/process/pipe.h"
#include "common/process/process-stat.h"

namespace common
{

using Clock = std::chrono::steady_clock;

// ---- What is left behind ----

namespace
{

struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};

std::vector<pid_t> ownChildren()
{
    std::vector<pid_t> found;
    const std::unique_ptr<DIR, CloseDirectory> processes(opendir("/proc"));
    const dirent* entry = nullptr;
    while (processes && (entry = readdir(processes.get())) != nullptr) {
        const pid_t process = std::atoi(entry->d_name);
        const std::optional<ProcessStat> stat =
            process > 0 ? readProcessStat("/proc/" + std::to_string(process)) : std::nullopt;
        if (stat && !stat->hasEnded() && stat->parent == getpid()) {
            found.push_back(process);
        }
    }
    return found;
}

// False when there is none left, ended or not.
bool takeEnded()
{
    pid_t ended = 0;
    do {
        ended = waitpid(-1, nullptr, WNOHANG | __WALL);
    } while (ended > 0);
    return ended == 0;
}

} // namespace

// The children of an ended one become this process's, so that round by round all of them come to it.
unsigned endLeftBehind(std::chrono::milliseconds grace)
{
    constexpr std::chrono::seconds kPatience{2}; // one may be another user's by now
    constexpr useconds_t kPauseUs = 2000;
    std::set<pid_t> ended;
    const Clock::time_point hurry = Clock::now() + grace;
    while (takeEnded() && Clock::now() < hurry + kPatience) {
        if (Clock::now() >= hurry) {
            for (const pid_t process : ownChildren()) {
                ended.insert(process);
                ::kill(process, SIGKILL);
            }
        }
        usleep(kPauseUs);
    }
    return static_cast<unsigned>(ended.size());
}

// ---- The watcher ----

namespace
{

struct Start {
    pid_t process; // -1: none, because of `error`
    int error;
};

void tell(int pipe, const void* bytes, size_t size)
{
    const ssize_t written = write(pipe, bytes, size);
    static_cast<void>(written); // nobody may listen any more
}

void replaceInput(int last)
{
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (int descriptor = 0; nothing >= 0 && descriptor <= last; ++descriptor) {
        dup2(nothing, descriptor);
    }
    if (nothing > last) {
        close(nothing);
    }
}

[[noreturn]] void runWork(const std::function<void()>& work, int output, ContainedProcess::Orphaned orphaned)
{
    setpgid(0, 0);
    InterruptionWatch::leave();
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    if (orphaned == ContainedProcess::Orphaned::kEnds) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
    }
    replaceInput(STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    std::setvbuf(stdout, nullptr, _IONBF, 0); // what is printed before a crash is worth the most
    work();
    _exit(0); // no library is asked to tear itself down
}

class Watcher
{
public:
    Watcher(pid_t parent, int report, int output, ContainedProcess::Orphaned orphaned)
        : parent_(parent), report_(report), output_(output), orphaned_(orphaned)
    {
    }
    [[noreturn]] void run(const std::function<void()>& work, int outputOfWork);

private:
    void tellStart(Start start) const { tell(report_, &start, sizeof start); }
    void letGoOfTheRest();
    int waitForEnd(pid_t process);
    void standInForParent(pid_t process);

    pid_t parent_;
    int report_;
    int output_;
    ContainedProcess::Orphaned orphaned_;
};

// Nobody shall wait for a pipe or a lock that this process has inherited.
void Watcher::letGoOfTheRest()
{
    replaceInput(STDERR_FILENO);
    const unsigned first = static_cast<unsigned>(std::min(report_, output_));
    const unsigned second = static_cast<unsigned>(std::max(report_, output_));
    for (const auto& [from, to] : {std::pair{3U, first}, {first + 1, second}, {second + 1, ~0U}}) {
        if (from < to) {
            close_range(from, to - (to == ~0U ? 0 : 1), 0);
        }
    }
}

// A full pipe would hold up whoever prints into it.
void Watcher::standInForParent(pid_t process)
{
    if (orphaned_ == ContainedProcess::Orphaned::kEnds) {
        ::kill(process, SIGKILL);
    }
    std::array<char, 4096> chunk{};
    while (read(output_, chunk.data(), chunk.size()) > 0) {
    }
}

int Watcher::waitForEnd(pid_t process)
{
    sigset_t awaited;
    sigemptyset(&awaited);
    sigaddset(&awaited, SIGCHLD);
    sigaddset(&awaited, SIGTERM); // of the parent's end
    int status = 0;
    while (waitpid(process, &status, WNOHANG) != process) {
        const bool isAlone = getppid() != parent_;
        if (isAlone) {
            standInForParent(process);
        }
        const timespec pause = isAlone ? timespec{0, 20'000'000} : timespec{1, 0};
        sigtimedwait(&awaited, nullptr, &pause);
    }
    return status;
}

void Watcher::run(const std::function<void()>& work, int outputOfWork)
{
    sigset_t before;
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &before);
    setpgid(0, 0);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const pid_t process = fork();
    if (process == 0) {
        sigprocmask(SIG_SETMASK, &before, nullptr);
        tellStart({getpid(), 0}); // here: before it can do the watcher any harm
        close(report_);
        runWork(work, outputOfWork, orphaned_);
    }
    if (process < 0) {
        tellStart({-1, errno});
        _exit(1);
    }
    letGoOfTheRest();
    ContainedProcess::End end;
    end.status = waitForEnd(process);
    // What goes on without this process may be writing what must not be cut off.
    constexpr std::chrono::milliseconds kGrace{3000};
    end.leftBehind = endLeftBehind(
        orphaned_ == ContainedProcess::Orphaned::kGoesOn ? kGrace : std::chrono::milliseconds{0});
    tell(report_, &end, sizeof end);
    _exit(0);
}

} // namespace

// ---- The process that asked for it ----

ContainedProcess::ContainedProcess(const std::function<void()>& work, Orphaned orphaned)
{
    Pipe output = makePipe();
    Pipe report = makePipe();
    fcntl(output.reading.get(), F_SETFL, O_NONBLOCK);
    std::fflush(nullptr); // else it is printed twice
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t self = getpid();
    watcher_ = fork();
    if (watcher_ == 0) {
        Watcher(self, report.writing.get(), output.reading.get(), orphaned).run(work, output.writing.get());
    }
    const int reason = errno;
    output_ = std::move(output.reading);
    report_ = std::move(report.reading);
    if (watcher_ > 0) {
        report.writing.reset();
    }
    Start start{-1, reason};
    if (watcher_ > 0 && read(report_.get(), &start, sizeof start) != sizeof start) {
        start = {-1, ECHILD};
    }
    process_ = start.process;
    if (process_ < 0) {
        letGo();
        throw Failure(std::string("cannot start a child process: ") + std::strerror(start.error));
    }
}

ContainedProcess::~ContainedProcess()
{
    if (!end_) {
        kill();
        wait();
    }
    letGo();
}

void ContainedProcess::letGo()
{
    output_.reset();
    report_.reset();
    if (watcher_ > 0) {
        waitpid(watcher_, nullptr, 0);
    }
}

void ContainedProcess::kill() const
{
    ::kill(process_, SIGKILL);
}

// True when the watcher has reported the end.
bool ContainedProcess::hear()
{
    constexpr std::chrono::milliseconds kPause{100}; // each wakes it, and this is asked for every line
    if (const Clock::time_point now = Clock::now(); now - woken_ >= kPause) {
        woken_ = now;
        ::kill(watcher_, SIGCONT); // it heeds no signal, but a SIGSTOP it must
    }
    pollfd news{report_.get(), POLLIN, 0};
    if (poll(&news, 1, 0) <= 0) {
        return false;
    }
    End end;
    if (read(report_.get(), &end, sizeof end) == sizeof end) {
        end_ = end;
    }
    report_.reset();
    waitpid(watcher_, nullptr, 0); // from here on the process is this one's own child, if it goes on
    watcher_ = -1;
    return end_.has_value();
}

bool ContainedProcess::hasEnded()
{
    if (end_ || (report_ && hear())) {
        return true;
    }
    int status = 0;
    if (report_ || waitpid(process_, &status, WNOHANG) == 0) {
        return false;
    }
    ::kill(-process_, SIGKILL);
    end_ = End{status, 0, true};
    return true;
}

ContainedProcess::End ContainedProcess::wait()
{
    constexpr int kPauseMs = 100;
    while (!hasEnded()) {
        pollfd news{report_.get(), POLLIN, 0};
        poll(&news, 1, kPauseMs);
    }
    return *end_;
}

} // namespace common
