#include "isolated.h"

#include "command.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <new>
#include <poll.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using Clock = std::chrono::steady_clock;

// In memory that both processes see.
struct Telling::Shared {
    std::atomic<Clock::rep> since{0}; // when the call began; 0 outside of calls
    std::atomic<bool> entered{false}; // a call has been named
    char call[32] = {};
};

namespace
{
struct Unmap {
    void operator()(void* memory) const { munmap(memory, sizeof(Telling::Shared)); }
};

std::unique_ptr<Telling::Shared, Unmap> makeShared()
{
    void* const memory =
        mmap(nullptr, sizeof(Telling::Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw common::Failure(std::string("no memory for a child process: ") + std::strerror(errno));
    return std::unique_ptr<Telling::Shared, Unmap>(new (memory) Telling::Shared);
}

[[noreturn]] void runChild(const std::function<void(Telling&)>& work, int pipe, Telling::Shared& shared)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(STDERR_FILENO, STDOUT_FILENO); // what a library prints must not mix with our output
    Telling telling(pipe, shared);
    try {
        work(telling);
    } catch (const std::exception& error) {
        telling.put("failure", error.what());
    }
    _exit(0);
}

bool isOverdue(const Telling::Shared& shared, std::chrono::seconds limit)
{
    const Clock::rep since = shared.since;
    return since != 0 && Clock::now() - Clock::time_point(Clock::duration(since)) > limit;
}

// Everything that the child writes, until it ends or a call is overdue. True for the latter.
bool collect(int pipe, const Telling::Shared& shared, std::chrono::seconds limit, std::string& out)
{
    char chunk[4096];
    while (true) {
        pollfd waiting{pipe, POLLIN, 0};
        if (poll(&waiting, 1, 100) > 0) {
            const ssize_t count = read(pipe, chunk, sizeof chunk);
            if (count == 0)
                return false;
            out.append(chunk, count > 0 ? static_cast<std::size_t>(count) : 0);
        } else if (isOverdue(shared, limit)) {
            return true;
        }
    }
}

Json::Value mergeParts(const std::string& lines)
{
    Json::Value merged(Json::objectValue);
    std::istringstream in(lines);
    for (std::string line; std::getline(in, line);) {
        std::istringstream text(line);
        Json::Value part;
        if (!Json::parseFromStream(Json::CharReaderBuilder(), text, &part, nullptr))
            continue; // cut off by a crash
        for (const std::string& name : part.getMemberNames())
            merged[name] = part[name];
    }
    return merged;
}

std::string failureOf(int status, bool overdue, const Telling::Shared& shared, std::chrono::seconds limit)
{
    const std::string where = shared.entered ? std::string(" in ") + shared.call : "";
    if (overdue)
        return "the control library hangs" + where + " (no answer within " + std::to_string(limit.count()) +
               " seconds)";
    if (WIFSIGNALED(status))
        return "the control library crashes" + where + " (" + strsignal(WTERMSIG(status)) + ")";
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0)
        return "the control library ends the process" + where;
    return "";
}
} // namespace

void Telling::put(const char* name, const Json::Value& value)
{
    Json::Value part;
    part[name] = value;
    const std::string line = toJson(part) + "\n";
    for (std::size_t done = 0; done < line.size();) {
        const ssize_t count = write(pipe_, line.data() + done, line.size() - done);
        if (count < 0 && errno != EINTR)
            _exit(1); // nobody listens any more
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}

void Telling::enter(const char* entryPoint)
{
    std::strncpy(shared_.call, entryPoint, sizeof shared_.call - 1);
    shared_.entered = true;
    shared_.since = Clock::now().time_since_epoch().count();
}

void Telling::leave()
{
    shared_.since = 0;
    shared_.entered = false;
}

Json::Value runIsolated(const std::function<void(Telling&)>& work, std::chrono::seconds limit)
{
    const auto shared = makeShared();
    int ends[2];
    if (pipe(ends) != 0)
        throw common::Failure(std::string("cannot make a pipe: ") + std::strerror(errno));
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        runChild(work, ends[1], *shared);
    }
    close(ends[1]);
    if (child < 0) {
        close(ends[0]);
        throw common::Failure(std::string("cannot start a child process: ") + std::strerror(errno));
    }
    std::string lines;
    const bool overdue = collect(ends[0], *shared, limit, lines);
    close(ends[0]);
    if (overdue)
        kill(child, SIGKILL);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    Json::Value told = mergeParts(lines);
    const std::string failure = failureOf(status, overdue, *shared, limit);
    if (!failure.empty())
        told["failure"] = failure;
    return told;
}

std::string toJson(const Json::Value& value)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["commentStyle"] = "None";
    return Json::writeString(writer, value);
}
