#include "tools/fwctl/isolated.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/json-text.h"
#include "tools/fwctl/commands/command.h"

namespace fwctl
{

using Clock = std::chrono::steady_clock;

// ---- What both processes see ----

namespace
{
struct Slot {
    std::atomic<bool> isUsed{false};
    std::atomic<Clock::rep> since{0}; // when the call began; 0 outside of calls
    bool writes = false;
    char entryPoint[32] = {};
    char module[64] = {};
};

template <std::size_t size>
void copyText(char (&field)[size], const std::string& text)
{
    std::strncpy(field, text.c_str(), size - 1);
    field[size - 1] = '\0';
}
} // namespace

struct Telling::Shared {
    Slot slots[32]; // calls at the same time; those beyond are not watched
};

namespace
{
Telling::Shared* makeShared()
{
    void* const memory =
        mmap(nullptr, sizeof(Telling::Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw common::Failure(std::string("no memory for a child process: ") + std::strerror(errno));
    }
    return new (memory) Telling::Shared;
}

// The call that began last and has not returned; null when there is none.
const Slot* latestCall(const Telling::Shared& shared)
{
    const Slot* latest = nullptr;
    for (const Slot& slot : shared.slots) {
        if (slot.since != 0 && (latest == nullptr || slot.since > latest->since)) {
            latest = &slot;
        }
    }
    return latest;
}

// The call that takes too long. None counts while hardware is being written: that must not be cut off.
const Slot* overdueCall(const Telling::Shared& shared)
{
    const Slot* overdue = nullptr;
    for (const Slot& slot : shared.slots) {
        const Clock::rep since = slot.since;
        if (since == 0) {
            continue;
        }
        if (slot.writes) {
            return nullptr;
        }
        if (Clock::now() - Clock::time_point(Clock::duration(since)) > kCallLimit) {
            overdue = &slot;
        }
    }
    return overdue;
}

constexpr const char* kWorkDone = "done";
constexpr const char* kException = "exception";
} // namespace

// ---- The child's end ----

namespace
{
[[noreturn]] void runChild(const Work& work, int pipe, Telling::Shared& shared, Child::Orphaned orphaned)
{
    const bool survives = orphaned == Child::Orphaned::kGoesOn;
    if (!survives) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
    }
    dup2(STDERR_FILENO, STDOUT_FILENO); // what a library prints must not mix with our output
    Telling telling(pipe, shared, survives);
    try {
        work(telling);
        telling.put(kWorkDone, true);
    } catch (const std::exception& error) {
        telling.put(kException, error.what());
    }
    _exit(0); // no library is asked to tear itself down
}
} // namespace

void Telling::put(const char* name, const Json::Value& value)
{
    Json::Value part;
    part[name] = value;
    const std::string line = common::compactJson(part) + "\n";
    const std::lock_guard<std::mutex> lock(mutex_);
    for (std::size_t done = 0; done < line.size();) {
        const ssize_t count = write(pipe_, line.data() + done, line.size() - done);
        if (count < 0 && errno != EINTR) {
            if (survives_) {
                return;
            }
            _exit(1); // nobody listens any more
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}

Telling::Call::Call(Telling& telling, const std::string& entryPoint, const std::string& module, bool writes)
    : slot_(nullptr)
{
    for (Slot& slot : telling.shared_.slots) {
        if (slot.isUsed.exchange(true)) {
            continue;
        }
        copyText(slot.entryPoint, entryPoint);
        copyText(slot.module, module);
        slot.writes = writes;
        slot.since = Clock::now().time_since_epoch().count();
        slot_ = &slot;
        return;
    }
}

Telling::Call::~Call()
{
    if (slot_ != nullptr) {
        static_cast<Slot*>(slot_)->since = 0;
        static_cast<Slot*>(slot_)->isUsed = false;
    }
}

// ---- The parent's end ----

Child::Child(const Work& work, Orphaned orphaned) : shared_(makeShared())
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw common::Failure(std::string("cannot make a pipe: ") + std::strerror(errno));
    }
    process_ = fork();
    if (process_ == 0) {
        close(ends[0]);
        runChild(work, ends[1], *shared_, orphaned);
    }
    const int reason = errno;
    close(ends[1]);
    pipe_ = ends[0];
    if (process_ < 0) {
        close(pipe_);
        throw common::Failure(std::string("cannot start a child process: ") + std::strerror(reason));
    }
}

Child::~Child()
{
    if (process_ > 0) {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
    close(pipe_);
    munmap(shared_, sizeof *shared_);
}

void Child::take(const char* bytes, std::size_t count, const PartHandler& onPart)
{
    rest_.append(bytes, count);
    std::size_t begin = 0;
    for (std::size_t end; (end = rest_.find('\n', begin)) != std::string::npos; begin = end + 1) {
        const auto part = common::parseJsonObject(std::string_view(rest_).substr(begin, end - begin));
        if (!part) {
            continue;
        }
        if (part->isMember(kWorkDone)) {
            isDone_ = true;
        } else if (part->isMember(kException)) {
            exception_ = (*part)[kException].asString();
        } else {
            onPart(*part);
        }
    }
    rest_.erase(0, begin);
}

bool Child::hasEnded() const
{
    siginfo_t ended = {};
    return waitid(P_PID, static_cast<id_t>(process_), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == process_;
}

// Everything that the child writes, until it ends or a call is overdue. True for the latter. A process that a
// library has started may keep the pipe open.
bool Child::collect(const PartHandler& onPart, const std::function<void()>& onPause)
{
    constexpr int kPauseMs = 100;
    char chunk[4096];
    Clock::time_point paused = Clock::now();
    for (bool isLast = false;; isLast = hasEnded()) {
        pollfd waiting{pipe_, POLLIN, 0};
        const int ready = poll(&waiting, 1, isLast ? 0 : kPauseMs);
        if (isLast && ready <= 0) {
            return false;
        }
        if (ready > 0) {
            const ssize_t count = read(pipe_, chunk, sizeof chunk);
            if (count == 0) {
                return false;
            }
            take(chunk, count > 0 ? static_cast<std::size_t>(count) : 0, onPart);
        }
        if (Clock::now() - paused >= std::chrono::milliseconds(kPauseMs)) {
            paused = Clock::now();
            onPause();
        }
        if (overdueCall(*shared_) != nullptr) {
            return true;
        }
    }
}

std::string Child::failureOf(int status)
{
    const Slot* const call = hasHung_ ? overdueCall(*shared_) : latestCall(*shared_);
    culprit_ = call != nullptr ? call->module : "";
    const std::string who = call != nullptr ? "the control library" : "the process that asks the libraries";
    const std::string where = call != nullptr ? std::string(" in ") + call->entryPoint : "";
    if (hasHung_) {
        return who + " hangs" + where + " (no answer within " + std::to_string(kCallLimit.count()) +
               " seconds)";
    }
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) {
        return who + " was killed" + where;
    }
    if (WIFSIGNALED(status)) {
        return who + " crashes" + where + " (" + strsignal(WTERMSIG(status)) + ")";
    }
    if (!exception_.empty()) {
        return exception_;
    }
    if (!isDone_) {
        return who + " ends the process" + where + " (exit status " + std::to_string(WEXITSTATUS(status)) +
               ")";
    }
    return "";
}

std::string Child::wait(const PartHandler& onPart, const std::function<void()>& onPause)
{
    hasHung_ = collect(onPart, onPause);
    if (hasHung_) {
        kill(process_, SIGKILL);
    }
    int status = 0;
    while (waitpid(process_, &status, 0) < 0 && errno == EINTR) {
    }
    process_ = -1;
    return failureOf(status);
}

// ---- One piece of work, and many ----

namespace
{
void merge(Json::Value& told, const Json::Value& part)
{
    for (const std::string& name : part.getMemberNames()) {
        told[name] = part[name];
    }
}

constexpr const char* kBegun = "begun"; // a piece of work, by its number
} // namespace

Json::Value runIsolated(const Work& work)
{
    return runIsolatedAll(1, [&](std::size_t, Telling& telling) { work(telling); }).front();
}

// The piece that a child ended in is tried again in a new child, unless it was the first there: what ends it
// may be another's doing.
std::vector<Json::Value> runIsolatedAll(std::size_t count,
                                        const std::function<void(std::size_t, Telling&)>& work)
{
    std::vector<Json::Value> told(count, Json::Value(Json::objectValue));
    for (std::size_t first = 0; first < count;) {
        std::size_t current = first;
        Child child(
            [&](Telling& telling) {
                for (std::size_t index = first; index < count; ++index) {
                    telling.put(kBegun, static_cast<Json::UInt64>(index));
                    work(index, telling);
                }
            },
            Child::Orphaned::kEnds);
        const auto onPart = [&](const Json::Value& part) {
            if (part.isMember(kBegun)) {
                current = part[kBegun].asUInt64();
                told[current] = Json::objectValue;
            } else {
                merge(told[current], part);
            }
        };
        const std::string failure = child.wait(onPart, [] {});
        if (failure.empty()) {
            break;
        }
        if (current > first && !child.hasHung()) {
            first = current;
            continue;
        }
        told[current]["failure"] = failure;
        first = current + 1;
    }
    return told;
}

} // namespace fwctl
