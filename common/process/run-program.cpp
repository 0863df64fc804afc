#include "common/process/run-program.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <unistd.h>
#include <utility>

#include "common/process/pipe.h"
#include "common/process/program.h"

extern char** environ; // NOLINT(readability-redundant-declaration): not every C library declares it

namespace common
{

namespace
{

// What a child says in one of its streams.
struct Stream {
    Pipe pipe = makePipe();
    std::string text;

    pollfd wanted() const { return {pipe.reading.get(), POLLIN, 0}; } // of -1, poll() expects nothing

    void take()
    {
        char block[65536];
        const ssize_t size = read(pipe.reading.get(), block, sizeof block);
        if (size > 0) {
            text.append(block, static_cast<std::size_t>(size));
        } else if (size == 0 || errno != EINTR) {
            pipe.reading.reset();
        }
    }
};

void readBoth(Stream& one, Stream& other)
{
    while (one.pipe.reading || other.pipe.reading) {
        pollfd wanted[] = {one.wanted(), other.wanted()};
        poll(wanted, 2, -1);
        if (wanted[0].revents != 0) {
            one.take();
        }
        if (wanted[1].revents != 0) {
            other.take();
        }
    }
}

// 0, or why not.
int start(const std::vector<std::string>& words, const std::string& directory, const Stream& out,
          const Stream& err, pid_t& process)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (!directory.empty()) {
        posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
    }
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out.pipe.writing.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err.pipe.writing.get(), STDERR_FILENO);
    const int error =
        posix_spawnp(&process, words[0].c_str(), &actions, nullptr, argumentsOf(words).data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return error;
}

} // namespace

Outcome runProgram(const std::vector<std::string>& words, const std::string& directory)
{
    Stream out;
    Stream err;
    pid_t process = -1;
    const int error = start(words, directory, out, err, process);
    if (error != 0) {
        return {-1, "", std::strerror(error)};
    }
    out.pipe.writing.reset();
    err.pipe.writing.reset();
    readBoth(out, err);
    int status = 0;
    while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    return {shellStatus(status), std::move(out.text), std::move(err.text)};
}

} // namespace common
