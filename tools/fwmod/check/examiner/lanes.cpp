#include "tools/fwmod/check/examiner/lanes.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fwmod::examiner
{

namespace
{
constexpr std::size_t kLongestLine = 1 << 17; // half of what a socket takes

[[noreturn]] void runLane(const std::function<void(const Lanes::Tell&)>& work, int output)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    try {
        work([output](const std::string& line) {
            if (line.size() > kLongestLine || send(output, line.data(), line.size(), MSG_NOSIGNAL) < 0) {
                throw std::runtime_error("cannot tell what was seen");
            }
        });
        _exit(EXIT_SUCCESS);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "control-examiner: %s\n", error.what());
        _exit(EXIT_FAILURE);
    }
}
} // namespace

// Packets, so that lines of several lanes do not mix, however long they are.
Lanes::Lanes()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::runtime_error(std::string("cannot make a socket: ") + std::strerror(errno));
    }
    reading_.reset(ends[0]);
    writing_.reset(ends[1]);
}

void Lanes::start(const std::function<void(const Tell&)>& work)
{
    std::fflush(stdout);
    const pid_t process = fork();
    if (process < 0) {
        throw std::runtime_error(std::string("cannot start a process: ") + std::strerror(errno));
    }
    if (process == 0) {
        reading_.reset();
        runLane(work, writing_.get());
    }
    processes_.push_back(process);
}

void Lanes::finish(const Tell& take)
{
    writing_.reset();
    std::string line(kLongestLine, '\0');
    for (ssize_t size = 0; (size = recv(reading_.get(), line.data(), line.size(), 0)) != 0;) {
        if (size < 0 && errno != EINTR) {
            throw std::runtime_error(std::string("cannot read what was seen: ") + std::strerror(errno));
        }
        if (size > 0) {
            take(line.substr(0, static_cast<std::size_t>(size)));
        }
    }
    for (const pid_t process : processes_) {
        int status = 0;
        if (waitpid(process, &status, 0) != process || status != 0) {
            throw std::runtime_error("not all could be tried");
        }
    }
}
} // namespace fwmod::examiner
