#include "common/process/room.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <future>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

#include "common/errors.h"

namespace common
{

namespace
{

[[noreturn]] void refuse(const std::string& what, const std::string& option, rlim_t wanted)
{
    throw Failure(what + ": raise the limit (ulimit " + option + " " + std::to_string(wanted) +
                  "), and try again");
}

void requireDescriptors()
{
    constexpr rlim_t kWanted = 64;
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kWanted) {
        return;
    }
    const rlim_t allowed = limit.rlim_cur;
    limit.rlim_cur = kWanted;
    if (limit.rlim_max < kWanted || setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        refuse("a process may open only " + std::to_string(allowed) + " files here", "-n", kWanted);
    }
}

void requireAddressSpace()
{
    constexpr rlim_t kWanted = 128 << 10; // KiB; measured: an update takes 80 MiB
    rlimit limit = {};
    if (getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur / 1024 < kWanted) {
        refuse("a process may have only " + std::to_string(limit.rlim_cur / 1024) + " KiB of memory here",
               "-v", kWanted);
    }
}

void requireStack()
{
    constexpr rlim_t kWanted = 512; // KiB; measured: 96 are enough for all that was tried, 64 are not
    rlimit limit = {};
    if (getrlimit(RLIMIT_STACK, &limit) == 0 && limit.rlim_cur / 1024 < kWanted) {
        refuse("a thread may have only " + std::to_string(limit.rlim_cur / 1024) + " KiB of stack here", "-s",
               kWanted);
    }
}

// 0, or what keeps them from being started.
int tryThreads()
{
    constexpr int kWanted = 4; // two of GLib's, the one that draws and the one that updates
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    std::vector<std::thread> threads;
    int problem = 0;
    try {
        for (int count = 0; count < kWanted; ++count) {
            threads.emplace_back([released] { released.wait(); });
        }
    } catch (const std::system_error& error) {
        problem = error.code().value();
    }
    release.set_value();
    for (std::thread& thread : threads) {
        thread.join();
    }
    return problem;
}

// In a process of its own: one that has had a thread is refused a user namespace for a moment.
void requireThreads()
{
    constexpr rlim_t kProcesses = 100;
    const pid_t trial = fork();
    if (trial == 0) {
        _exit(std::min(tryThreads(), 255));
    }
    int status = 0;
    if (trial > 0 && waitpid(trial, &status, 0) != trial) {
        return; // its status goes to nobody: whoever started this program has it so
    }
    // One that a signal has ended proves nothing.
    const int problem = trial < 0 ? errno : WIFEXITED(status) ? WEXITSTATUS(status) : 0;
    if (problem != 0) {
        refuse(std::string("cannot start a process or a thread here (") + std::strerror(problem) + ")", "-u",
               kProcesses);
    }
}

} // namespace

void requireRoom()
{
    requireDescriptors();
    requireAddressSpace();
    requireStack();
    requireThreads();
}

} // namespace common
