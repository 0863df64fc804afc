#include "vset/television/process.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vset
{

namespace
{

[[noreturn]] void fail(const std::string& what)
{
    throw tarnwick::TelevisionError(what + ": " + std::strerror(errno));
}

[[noreturn]] void runChild(char* const* arguments, int input, int output)
{
    // A test that is killed leaves nothing behind.
    prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    execvp(arguments[0], arguments);
    _exit(127);
}

std::string inWords(const std::vector<std::string>& command)
{
    std::string text;
    for (const std::string& word : command) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

} // namespace

Process::Process(const std::vector<std::string>& command, const std::string& output)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        fail("pipe");
    }
    const int log = open(output.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (log < 0) {
        fail(output);
    }
    std::vector<char*> arguments; // made before the fork: nothing is allocated after it
    for (const std::string& word : command) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    id_ = fork();
    if (id_ == 0) {
        runChild(arguments.data(), ends[0], log);
    }
    close(ends[0]);
    close(log);
    input_ = ends[1];
    if (id_ < 0) {
        fail("fork");
    }
    handle_ = static_cast<int>(syscall(SYS_pidfd_open, id_, 0));
}

Process::~Process()
{
    closeInput();
    if (!status_) {
        kill(id_, SIGKILL);
        waitFor(kPatience);
    }
    close(handle_);
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
    if (input_ >= 0) {
        close(input_);
    }
    input_ = -1;
}

void Process::signal(int number) const
{
    if (!status_) {
        kill(id_, number);
    }
}

std::optional<int> Process::waitFor(std::chrono::milliseconds longest)
{
    if (status_) {
        return status_;
    }
    pollfd end{handle_, POLLIN, 0};
    if (poll(&end, 1, static_cast<int>(longest.count())) <= 0) {
        return std::nullopt;
    }
    int status = 0;
    if (waitpid(id_, &status, 0) != id_) {
        fail("waitpid");
    }
    status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return status_;
}

tarnwick::Output run(const std::vector<std::string>& command)
{
    std::error_code error;
    std::string file = std::filesystem::temp_directory_path(error) / "television-XXXXXX";
    const int handle = error ? -1 : mkstemp(file.data());
    if (handle < 0) {
        throw tarnwick::TelevisionError("no temporary file can be made (TMPDIR names another directory): " +
                                        (error ? error.message() : file + ": " + std::strerror(errno)));
    }
    close(handle);
    std::optional<int> status;
    {
        Process process(command, file);
        process.closeInput();
        status = process.waitFor(kPatience);
    }
    std::ifstream in(file);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    std::filesystem::remove(file);
    if (!status) {
        throw tarnwick::TelevisionError("does not end: " + inWords(command) + "\n" + text);
    }
    return {*status, text};
}

std::string runOrThrow(const std::vector<std::string>& command)
{
    tarnwick::Output output = run(command);
    if (output.status != 0) {
        throw tarnwick::TelevisionError(inWords(command) + " ended with status " +
                                        std::to_string(output.status) + ": " + output.text);
    }
    return output.text;
}

} // namespace vset
