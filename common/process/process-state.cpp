#include "common/process/process-state.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/types.h>
#include <unistd.h>

#include "common/process/process-stat.h"

namespace common
{

namespace fs = std::filesystem;

namespace
{
using namespace std::chrono_literals;

// An ended thread runs its last instructions after it was joined, which takes its time on a loaded machine;
// one that sleeps has a life of its own.
constexpr std::chrono::nanoseconds kShortGrace = 100ms;
constexpr std::chrono::nanoseconds kLongGrace = 500ms;

void pause(std::chrono::nanoseconds duration)
{
    const timespec time = {0, static_cast<long>(duration.count())};
    syscall(SYS_nanosleep, &time, nullptr); // the PC's time, whatever the set's clock does
}

std::set<pid_t> numbersIn(const char* directory)
{
    std::set<pid_t> numbers;
    std::error_code gone;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory, gone)) {
        const pid_t number = std::atoi(entry.path().filename().c_str());
        if (number > 0) {
            numbers.insert(number);
        }
    }
    return numbers;
}

std::string lineOf(const char* file, const std::string& key)
{
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, key.size(), key) == 0) {
            return line.substr(key.size());
        }
    }
    return "";
}

std::string currentDirectory()
{
    std::error_code error;
    return fs::current_path(error).string();
}

std::vector<std::string> environmentNow()
{
    std::vector<std::string> entries;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        entries.emplace_back(*entry);
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

void (*handlerOf(int signal))(int)
{
    struct sigaction action = {};
    return sigaction(signal, nullptr, &action) == 0 ? action.sa_handler : SIG_DFL;
}

// alarm(), setitimer() and timer_create().
std::size_t runningTimers()
{
    std::size_t running = 0;
    for (const auto which : {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF}) {
        itimerval timer = {};
        if (getitimer(which, &timer) == 0 && (timer.it_value.tv_sec != 0 || timer.it_value.tv_usec != 0)) {
            ++running;
        }
    }
    std::ifstream list("/proc/self/timers");
    for (std::string line; std::getline(list, line);) {
        running += line.compare(0, 3, "ID:") == 0 ? 1 : 0;
    }
    return running;
}

bool isAsleep(pid_t thread)
{
    const std::optional<ProcessStat> stat = readProcessStat("/proc/self/task/" + std::to_string(thread));
    return stat && stat->isAsleep();
}

std::set<pid_t> without(const std::set<pid_t>& all, const std::set<pid_t>& known)
{
    std::set<pid_t> rest;
    std::set_difference(all.begin(), all.end(), known.begin(), known.end(), std::inserter(rest, rest.end()));
    return rest;
}

std::string leftRunning(std::size_t number, const char* one, const char* several)
{
    return std::to_string(number) + " " + (number == 1 ? one : several) + " left running";
}

// The first entry that one list has and the other has not.
std::string firstDifference(const std::vector<std::string>& before, const std::vector<std::string>& after)
{
    for (const std::string& entry : after) {
        if (!std::binary_search(before.begin(), before.end(), entry)) {
            return entry + " is new";
        }
    }
    for (const std::string& entry : before) {
        if (!std::binary_search(after.begin(), after.end(), entry)) {
            return entry + " is gone";
        }
    }
    return "entries are there twice";
}
} // namespace

ProcessState ProcessState::now()
{
    ProcessState state;
    state.directory_ = currentDirectory();
    state.locale_ = std::setlocale(LC_ALL, nullptr);
    state.threadLocale_ = uselocale(nullptr);
    state.environment_ = environmentNow();
    state.mask_ = lineOf("/proc/self/status", "Umask:\t");
    for (int signal = 1; signal < NSIG; ++signal) {
        state.handlers_[static_cast<std::size_t>(signal)] = handlerOf(signal);
    }
    pthread_sigmask(SIG_BLOCK, nullptr, &state.blocked_);
    state.timers_ = runningTimers();
    state.threads_ = numbersIn("/proc/self/task");
    state.processes_ = numbersIn("/proc"); // of this worker's namespace alone
    return state;
}

ProcessState ProcessState::settled() const
{
    const std::int64_t begin = realNow();
    while (true) {
        ProcessState after = now();
        const std::set<pid_t> threads = without(after.threads_, threads_);
        const std::set<pid_t> processes = without(after.processes_, processes_);
        if (threads.empty() && processes.empty()) {
            return after;
        }
        const std::chrono::nanoseconds waited(realNow() - begin);
        const bool someSleep = std::any_of(threads.begin(), threads.end(), isAsleep) || !processes.empty();
        if (waited > (someSleep ? kShortGrace : kLongGrace)) {
            return after;
        }
        pause(5ms);
    }
}

std::string signalName(int signal)
{
    const char* const name = sigabbrev_np(signal);
    return name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(signal);
}

std::vector<ProcessChange> ProcessState::changesIn(const ProcessState& later) const
{
    using Kind = ProcessChange::Kind;
    std::vector<ProcessChange> changes;
    if (later.directory_ != directory_) {
        changes.push_back({Kind::kDirectory, "from " + directory_ + " to " + later.directory_});
    }
    for (std::size_t signal = 1; signal < handlers_.size(); ++signal) {
        if (later.handlers_[signal] != handlers_[signal]) {
            changes.push_back({Kind::kSignals, "the disposition of " + signalName(static_cast<int>(signal))});
        }
    }
    for (int signal = 1; signal < NSIG; ++signal) {
        if (sigismember(&later.blocked_, signal) != sigismember(&blocked_, signal)) {
            changes.push_back({Kind::kSignals, "the thread's mask, at " + signalName(signal)});
        }
    }
    if (later.locale_ != locale_) {
        changes.push_back({Kind::kLocale, "from " + locale_ + " to " + later.locale_});
    } else if (later.threadLocale_ != threadLocale_) {
        changes.push_back({Kind::kLocale, "that of the calling thread"});
    }
    if (later.environment_ != environment_) {
        changes.push_back({Kind::kEnvironment, firstDifference(environment_, later.environment_)});
    }
    if (later.mask_ != mask_) {
        changes.push_back({Kind::kFileModeMask, "from " + mask_ + " to " + later.mask_});
    }
    if (later.timers_ > timers_) {
        changes.push_back({Kind::kTimer, leftRunning(later.timers_ - timers_, "timer is", "timers are")});
    }
    const std::size_t threads = without(later.threads_, threads_).size();
    if (threads > 0) {
        changes.push_back({Kind::kThread, leftRunning(threads, "thread is", "threads are")});
    }
    const std::size_t processes = without(later.processes_, processes_).size();
    if (processes > 0) {
        changes.push_back(
            {Kind::kProcess, leftRunning(processes, "process is", "processes are") + " or not waited for"});
    }
    return changes;
}

std::int64_t realNow()
{
    timespec now{};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now); // the C library's may be the set's clock
    return now.tv_sec * std::int64_t{1000000000} + now.tv_nsec;
}

std::size_t openDescriptors()
{
    const auto files = fs::directory_iterator("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(fs::begin(files), fs::end(files))) - 1; // not this one
}

ProcessorDelay::ProcessorDelay() : file_(open("/proc/thread-self/schedstat", O_RDONLY | O_CLOEXEC)) {}

std::chrono::nanoseconds ProcessorDelay::soFar() const
{
    char text[128] = "";
    long long running = 0;
    long long waiting = 0;
    if (!file_ || pread(file_.get(), text, sizeof text - 1, 0) <= 0 ||
        std::sscanf(text, "%lld %lld", &running, &waiting) != 2) {
        return 0ns;
    }
    return std::chrono::nanoseconds(waiting);
}
} // namespace common
