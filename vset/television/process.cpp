#include "vset/television/process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/files/whole-file.h"
#include "common/joined.h"
#include "common/process/program.h"

namespace vset
{

namespace
{

[[noreturn]] void fail(const std::string& what)
{
    throw tarnwick::TelevisionError(what + ": " + std::strerror(errno));
}

// Where only calls that a signal handler may make are allowed.
[[noreturn]] void runChild(char* const* arguments, int input, int output, int errors, pid_t parent)
{
    setpgid(0, 0);
    std::signal(SIGPIPE, SIG_DFL);             // ours is not its business
    prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0); // a test that is killed leaves nothing behind
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(errors, STDERR_FILENO);
    if (getppid() == parent) { // else it was killed before the tie was made
        execvp(arguments[0], arguments);
    }
    _exit(127);
}

common::UniqueFd openForAppending(const std::string& path)
{
    common::UniqueFd file(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    if (!file) {
        fail(path);
    }
    return file;
}

} // namespace

Process::Process(const std::vector<std::string>& command, const std::string& output,
                 const std::string& errors)
{
    const common::UniqueFd out = openForAppending(output);
    const common::UniqueFd err = openForAppending(errors);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        fail("pipe");
    }
    const common::UniqueFd input(ends[0]);
    common::UniqueFd ours(ends[1]);
    const std::vector<char*> arguments = common::argumentsOf(command); // nothing is allocated after the fork
    const pid_t self = getpid();
    id_ = fork();
    if (id_ == 0) {
        runChild(arguments.data(), input.get(), out.get(), err.get(), self);
    }
    if (id_ < 0) {
        fail("fork");
    }
    input_ = std::move(ours);
    handle_.reset(static_cast<int>(syscall(SYS_pidfd_open, id_, 0)));
}

Process::~Process()
{
    closeInput();
    if (!status_) {
        kill(id_, SIGKILL);
        waitFor(kPatience);
    }
}

pid_t Process::child() const
{
    const std::string id = std::to_string(id_);
    std::ifstream children("/proc/" + id + "/task/" + id + "/children");
    pid_t child = -1;
    if (!(children >> child)) {
        throw tarnwick::TelevisionError("process " + id + " has no child");
    }
    return child;
}

void Process::closeInput()
{
    input_.reset();
}

void Process::signal(int number) const
{
    if (!status_) {
        kill(id_, number);
    }
}

std::optional<int> Process::waitFor(std::chrono::milliseconds longest, const Meanwhile& meanwhile)
{
    constexpr std::chrono::milliseconds kTick{50};
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + longest;
    while (true) {
        // Also after a signal has ended the wait: the caller's handler may have been for another one.
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        const auto now = std::max(std::chrono::milliseconds(0), meanwhile ? std::min(left, kTick) : left);
        if (const std::optional<int> status = takeEnd(static_cast<int>(now.count()))) {
            return status;
        }
        if (Clock::now() >= end) {
            return std::nullopt;
        }
        if (meanwhile) {
            meanwhile();
        }
    }
}

std::optional<int> Process::takeEnd(int longest)
{
    pollfd end{handle_.get(), POLLIN, 0};
    if (status_ || poll(&end, 1, longest) <= 0) {
        return status_;
    }
    int status = 0;
    if (waitpid(id_, &status, 0) != id_) {
        fail("waitpid");
    }
    status_ = common::shellStatus(status);
    return status_;
}

// ---- To the end ----

namespace
{

// What a program says, until somebody reads it. The file has no name from the beginning: a program that is
// killed leaves none.
class Notes
{
public:
    Notes()
    {
        std::error_code error;
        const std::filesystem::path directory = std::filesystem::temp_directory_path(error);
        file_.reset(error ? -1 : open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
        if (file_) {
            return;
        }
        std::string name = directory / "television-XXXXXX"; // a file system that knows no such files
        file_.reset(error ? -1 : mkostemp(name.data(), O_CLOEXEC));
        if (!file_) {
            throw tarnwick::TelevisionError(
                "no temporary file can be made (TMPDIR names another directory): " +
                (error ? error.message() : name + ": " + std::strerror(errno)));
        }
        unlink(name.c_str());
    }

    std::string path() const { return "/proc/self/fd/" + std::to_string(file_.get()); }
    std::string text() const { return common::readWhole(path()); }

private:
    common::UniqueFd file_;
};

} // namespace

tarnwick::Output run(const std::vector<std::string>& command, const Meanwhile& meanwhile,
                     std::chrono::milliseconds longest)
{
    const Notes output;
    const Notes errors;
    Process process(command, output.path(), errors.path());
    process.closeInput();
    const std::optional<int> status = process.waitFor(longest, meanwhile);
    if (!status) {
        throw tarnwick::TelevisionError("does not end: " + common::joined(command, " ") + "\n" +
                                        output.text() + errors.text());
    }
    return {*status, output.text(), errors.text()};
}

std::string runOrThrow(const std::vector<std::string>& command, const Meanwhile& meanwhile)
{
    tarnwick::Output output = run(command, meanwhile);
    if (output.status != 0) {
        throw tarnwick::TelevisionError(common::joined(command, " ") + " ended with status " +
                                        std::to_string(output.status) + ": " + output.text + output.errors);
    }
    return output.text;
}

} // namespace vset
