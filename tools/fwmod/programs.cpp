#include "tools/fwmod/programs.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tools/fwmod/commands/command.h"
#include "tools/fwmod/interruption.h"

namespace fwmod
{

namespace fs = std::filesystem;

namespace
{
constexpr const char* kRemedy = ": install the kit anew (scripts/install-sdk), or in a build tree build the "
                                "target sdk-kit";

// False when it is not there. Throws when it is, but not for this user: building it would not help.
bool canRun(const fs::path& program)
{
    if (access(program.c_str(), X_OK) == 0) {
        return true;
    }
    if (errno != ENOENT && errno != ENOTDIR) {
        throw common::Failure("cannot run " + program.string() + ": " + std::strerror(errno) +
                              "; whose tree is it, and may others read it?");
    }
    return false;
}
} // namespace

fs::path vsetProgram()
{
    const fs::path own = fs::read_symlink("/proc/self/exe").parent_path();
    for (const fs::path& candidate : {own / "vset", own / "../../vset/bin/vset"}) {
        if (canRun(candidate)) {
            return fs::canonical(candidate);
        }
    }
    throw common::Failure("the virtual set, vset, is not in " + own.string() + kRemedy);
}

fs::path programBesideVset(const std::string& name)
{
    const fs::path directory = vsetProgram().parent_path();
    if (!canRun(directory / name)) {
        throw common::Failure(name + " is not in " + directory.string() + kRemedy);
    }
    return directory / name;
}

// ---- RunningProgram ----

namespace
{
// In the child, where only calls that a signal handler may make are allowed.
[[noreturn]] void become(char* const* arguments, int output, int errors, pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    std::signal(SIGPIPE, SIG_DFL); // ours is not its business
    dup2(output, STDOUT_FILENO);
    dup2(errors, STDERR_FILENO);
    if (getppid() == parent) {
        execv(arguments[0], arguments);
    }
    _exit(127);
}
} // namespace

RunningProgram::RunningProgram(const std::vector<std::string>& arguments, const fs::path& errors)
{
    std::vector<char*> pointers;
    for (const std::string& argument : arguments) {
        pointers.push_back(const_cast<char*>(argument.c_str())); // the call is of C, and leaves them alone
    }
    pointers.push_back(nullptr);
    std::array<int, 2> ends{};
    const int errorFile = open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (errorFile < 0 || pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw common::Failure("cannot start " + arguments[0] + ": " + std::strerror(errno));
    }
    const pid_t self = getpid();
    process_ = fork();
    if (process_ == 0) {
        become(pointers.data(), ends[1], errorFile, self);
    }
    close(ends[1]);
    close(errorFile);
    output_ = ends[0];
}

RunningProgram::~RunningProgram()
{
    close(output_);
    if (process_ <= 0) {
        return;
    }
    kill(process_, SIGTERM);
    waitpid(process_, nullptr, 0);
}

std::optional<std::string> RunningProgram::readLine()
{
    constexpr int kTick = 100; // ms, in which an interruption is seen
    while (true) {
        const std::size_t end = unread_.find('\n');
        if (end != std::string::npos) {
            std::string line = unread_.substr(0, end);
            unread_.erase(0, end + 1);
            return line;
        }
        InterruptionWatch::check();
        pollfd waiting{output_, POLLIN, 0};
        if (poll(&waiting, 1, kTick) <= 0) {
            continue;
        }
        std::array<char, 4096> chunk{};
        const ssize_t length = read(output_, chunk.data(), chunk.size());
        if (length <= 0 && !(length < 0 && errno == EINTR)) {
            return std::nullopt;
        }
        unread_.append(chunk.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    }
}

bool RunningProgram::hasSucceeded()
{
    int status = -1;
    waitpid(process_, &status, 0);
    process_ = -1;
    InterruptionWatch::check(); // Ctrl-C has ended it, too
    return status == 0;
}
} // namespace fwmod
