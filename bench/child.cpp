#include "bench/child.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <glib.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <utility>

#include "common/joined.h"
#include "common/process/program.h"

extern char** environ; // NOLINT(readability-redundant-declaration): not every C library declares it

namespace bench
{

Child::Child(const std::vector<std::string>& words)
{
    const std::vector<char*> arguments = common::argumentsOf(words);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    const int error = posix_spawnp(&id_, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::runtime_error(words[0] + " cannot be started: " + strerror(error));
    }
}

Child::~Child()
{
    if (id_ > 0) {
        kill(id_, SIGKILL);
        wait();
    }
}

double Child::processorSeconds() const
{
    clockid_t clock = {};
    timespec time = {};
    if (clock_getcpuclockid(id_, &clock) != 0 || clock_gettime(clock, &time) != 0) {
        throw std::runtime_error("the processor time of a program cannot be asked for: it has ended");
    }
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

int Child::wait()
{
    int status = 0;
    while (waitpid(id_, &status, 0) < 0 && errno == EINTR) {
    }
    id_ = -1;
    return common::shellStatus(status);
}

void runProgram(const std::vector<std::string>& words)
{
    const int status = Child(words).wait();
    if (status != 0) {
        throw std::runtime_error(common::joined(words, " ") + " ended with status " + std::to_string(status));
    }
}

bool hasProgram(const std::string& name)
{
    char* const path = g_find_program_in_path(name.c_str());
    g_free(path);
    return path != nullptr;
}

} // namespace bench
