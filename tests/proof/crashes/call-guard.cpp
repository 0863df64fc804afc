#include "tests/proof/crashes/call-guard.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace proof
{

namespace
{

namespace fs = std::filesystem;

constexpr const char* kHardware = "/var/lib/hardware/";

// Waits, and what asks or tells the kernel nothing that lasts. A daemon that is killed in one of them has
// done neither more nor less than before its next call, and how often it makes them differs from run to run.
constexpr const char* kUnseen[] = {
    "futex",
    "poll",
    "ppoll",
    "select",
    "pselect6",
    "epoll_wait",
    "epoll_pwait",
    "nanosleep",
    "clock_nanosleep",
    "pause",
    "restart_syscall",
    "rt_sigreturn",
    "rt_sigprocmask",
    "rt_sigtimedwait",
    "sigaltstack",
    "gettid",
    "getpid",
    "getuid",
    "geteuid",
    "getgid",
    "getegid",
    "sched_yield",
    "set_robust_list",
    "set_tid_address",
    "rseq",
    "clock_gettime",
    "gettimeofday",
    "exit",
    "exit_group",
    "madvise",
    "getrandom",
    "sched_getaffinity",
    "prctl",
    "arch_prctl",
    "prlimit64",
    "futex_waitv",
    "timerfd_create",
    "timerfd_settime",
};

[[noreturn]] void fail(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

common::UniqueFd listenAt(const fs::path& path)
{
    common::UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.string().size() >= sizeof address.sun_path) {
        throw std::runtime_error(path.string() + " is too long: name a shorter TMPDIR");
    }
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    unlink(path.c_str());
    if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        chmod(path.c_str(), 0666) != 0 || listen(socket.get(), 1) != 0) {
        fail("cannot wait for the daemon at " + path.string());
    }
    return socket;
}

pid_t processOf(pid_t thread)
{
    std::ifstream in("/proc/" + std::to_string(thread) + "/status");
    for (std::string word; in >> word;) {
        if (word == "Tgid:") {
            pid_t process = 0;
            in >> process;
            return process;
        }
    }
    return 0;
}

std::string memoryOf(pid_t thread, std::uint64_t address, std::size_t size)
{
    std::string bytes(size, '\0');
    const iovec here{bytes.data(), size};
    const iovec there{reinterpret_cast<void*>(address), size}; // of that process
    const ssize_t got = process_vm_readv(thread, &here, 1, &there, 1, 0);
    bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return bytes;
}

std::string contentAt(const fs::path& file, off_t offset, std::size_t size)
{
    const common::UniqueFd input(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    std::string bytes(size, '\0');
    const ssize_t got = pread(input.get(), bytes.data(), size, offset);
    bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return bytes;
}

void putAt(const fs::path& file, off_t offset, const std::string& bytes)
{
    const common::UniqueFd output(open(file.c_str(), O_WRONLY | O_CLOEXEC));
    if (pwrite(output.get(), bytes.data(), bytes.size(), offset) != static_cast<ssize_t>(bytes.size())) {
        fail("cannot write " + file.string());
    }
}

off_t positionOf(pid_t thread, int descriptor)
{
    std::ifstream in("/proc/" + std::to_string(thread) + "/fdinfo/" + std::to_string(descriptor));
    std::string word;
    off_t position = 0;
    in >> word >> position; // its first line is "pos: N"
    return position;
}

// Of the call's first argument, a descriptor; "" when it is none.
std::string fileOf(const seccomp_notif& notice)
{
    std::error_code gone;
    return fs::read_symlink("/proc/" + std::to_string(notice.pid) + "/fd/" +
                                std::to_string(static_cast<int>(notice.data.args[0])),
                            gone);
}

// How threads wake each other: it is a number in the kernel's memory, which has no such failures.
bool isWakeUp(const seccomp_notif& notice, const SystemCall& call)
{
    return (call.name == "read" || call.name == "write") && fileOf(notice) == "anon_inode:[eventfd]";
}

bool isWaitedFor(int descriptor, int end)
{
    pollfd waiting[] = {{descriptor, POLLIN, 0}, {end, POLLIN, 0}};
    while (poll(waiting, 2, -1) < 0 && errno == EINTR) {
    }
    return waiting[1].revents == 0 && (waiting[0].revents & POLLIN) != 0;
}

} // namespace

vset::CallFilter watchedFilter()
{
    vset::CallFilter filter(vset::CallFilter::Others::kHeld);
    for (const char* call : kUnseen) {
        filter.pass(call);
    }
    return filter;
}

std::string nameOfCall(int number)
{
    static std::map<int, std::string> names;
    std::string& name = names[number];
    if (name.empty()) {
        const std::unique_ptr<char, decltype(&free)> text{
            seccomp_syscall_resolve_num_arch(SCMP_ARCH_NATIVE, number), &free};
        name = text ? text.get() : "call-" + std::to_string(number);
    }
    return name;
}

// ---- Outside of the guard's thread ----

CallGuard::CallGuard(const fs::path& set, std::optional<Point> point)
    : set_(set), point_(std::move(point)), socket_(listenAt(set.string() + "/root" + kGuardSocket)),
      end_(eventfd(0, EFD_CLOEXEC)), thread_([this] { work(); })
{
}

CallGuard::~CallGuard()
{
    if (thread_.joinable()) {
        eventfd_write(end_.get(), 1);
        thread_.join();
    }
}

void CallGuard::finish()
{
    eventfd_write(end_.get(), 1);
    thread_.join();
    if (!problem_.empty()) {
        throw std::runtime_error(problem_);
    }
}

void CallGuard::loseUnflushed(bool isLastKept) const
{
    for (auto write = unflushed_.rbegin(); write != unflushed_.rend(); ++write) {
        putAt(write->chip, write->offset, write->before);
    }
    if (isLastKept && !unflushed_.empty()) {
        putAt(unflushed_.back().chip, unflushed_.back().offset, unflushed_.back().written);
    }
}

// ---- In the guard's thread ----

void CallGuard::work() noexcept
{
    try {
        listen();
    } catch (const std::exception& error) {
        problem_ = error.what();
    }
}

void CallGuard::listen()
{
    if (!isWaitedFor(socket_.get(), end_.get())) {
        return; // it did not start
    }
    const common::UniqueFd daemon(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    socket_.reset(); // a later start in this set is nobody's business
    const vset::CallListener listener(daemon.get());
    while (!isHeld_ && isWaitedFor(listener.descriptor(), end_.get())) {
        if (const std::optional<seccomp_notif> notice = listener.next()) {
            judge(listener, *notice);
        }
    }
    while (isHeld_ && isWaitedFor(-1, end_.get())) { // with the listener open: else its calls would fail
    }
}

void CallGuard::judge(const vset::CallListener& listener, const seccomp_notif& notice)
{
    const SystemCall call = count(notice, nameOfCall(notice.data.nr));
    if (flushing_ == static_cast<pid_t>(notice.pid)) {
        unflushed_.clear();
        flushing_ = 0;
    }
    const bool isFailing = point_ && point_->fault == FaultKind::kFailing;
    const bool isHit = isPoint(call) && !(isFailing && isWakeUp(notice, call));
    if (isHit && isFailing) {
        hasHit_ = true;
        listener.answer(notice.id, 0, errorNumber(point_->error));
        return;
    }
    if (isHit) {
        isHeld_ = true;
        if (point_->fault == FaultKind::kKill) {
            kill(processOf(static_cast<pid_t>(notice.pid)), SIGKILL);
        }
        hasHit_ = true;
        return;
    }
    noteHardware(notice, call);
    listener.letPass(notice.id);
}

SystemCall CallGuard::count(const seccomp_notif& notice, const std::string& name)
{
    const auto numbered = threads_.emplace(static_cast<pid_t>(notice.pid), threads_.size() + 1);
    const unsigned int thread = numbered.first->second;
    const SystemCall call{thread, name, ++counts_[{thread, name}]};
    if (!point_) {
        calls_.push_back({call, !unflushed_.empty() && flushing_ != static_cast<pid_t>(notice.pid)});
    }
    return call;
}

bool CallGuard::isPoint(const SystemCall& call) const
{
    return point_ && !hasHit_ && call.thread == point_->call.thread && call.name == point_->call.name &&
           call.occurrence == point_->call.occurrence;
}

void CallGuard::noteHardware(const seccomp_notif& notice, const SystemCall& call)
{
    const bool isFlush = call.name == "fdatasync" || call.name == "fsync";
    const bool hasPosition = call.name == "pwrite64";
    if (!isFlush && !hasPosition && call.name != "write") {
        return;
    }
    const fs::path chip = chipOf(notice);
    if (chip.empty()) {
        return;
    }
    const auto thread = static_cast<pid_t>(notice.pid);
    if (isFlush) {
        flushing_ = thread;
        return;
    }
    const auto size = static_cast<std::size_t>(notice.data.args[2]);
    const off_t offset = hasPosition ? static_cast<off_t>(notice.data.args[3])
                                     : positionOf(thread, static_cast<int>(notice.data.args[0]));
    unflushed_.push_back(
        {chip, offset, contentAt(chip, offset, size), memoryOf(thread, notice.data.args[1], size)});
}

fs::path CallGuard::chipOf(const seccomp_notif& notice) const
{
    const std::string path = fileOf(notice);
    return path.rfind(kHardware, 0) == 0 ? fs::path(set_.string() + "/root" + path) : fs::path();
}

} // namespace proof
