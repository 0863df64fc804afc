#include "tools/fwctl/modules/isolated.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "common/json-text.h"
#include "common/process/pipe.h"
#include "common/terminal/reading-progress.h"
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
    unsigned long long word = 0;       // see wordOf()
    std::atomic<bool> isCutOff{false}; // somebody has closed the pipe in the child
    std::atomic<std::size_t> reached{0};
    Slot slots[32]; // calls at the same time; those beyond are not watched
    // What was put and not sent yet: to wake the parent for each would cost both more than most questions do.
    std::atomic<std::size_t> keptSize{0};
    char kept[std::size_t{64} * 1024] = {};
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
    auto* const shared = new (memory) Telling::Shared;
    if (getrandom(&shared->word, sizeof shared->word, GRND_NONBLOCK) < 0) {
        shared->word = static_cast<unsigned long long>(Clock::now().time_since_epoch().count());
    }
    return shared;
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

bool isWriting(const Telling::Shared& shared)
{
    return std::any_of(std::begin(shared.slots), std::end(shared.slots),
                       [](const Slot& slot) { return slot.since != 0 && slot.writes; });
}

// The call that takes too long. None counts while hardware is being written: that must not be cut off.
const Slot* overdueCall(const Telling::Shared& shared)
{
    if (isWriting(shared)) {
        return nullptr;
    }
    const Slot* overdue = nullptr;
    for (const Slot& slot : shared.slots) {
        const Clock::rep since = slot.since;
        if (since != 0 && Clock::now() - Clock::time_point(Clock::duration(since)) > kCallLimit) {
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
void runWork(const Work& work, int pipe, Telling::Shared& shared, Child::Orphaned orphaned)
{
    Telling telling(pipe, shared, orphaned == Child::Orphaned::kGoesOn);
    try {
        work(telling);
        telling.put(kWorkDone, true);
    } catch (const std::exception& error) {
        telling.put(kException, error.what());
    } catch (const abi::__forced_unwind&) { // without this thread the others would keep the process for ever
        while (isWriting(shared)) {
            usleep(100'000);
        }
        const Slot* const call = latestCall(shared);
        telling.put(kException, std::string("the control library ends its thread") +
                                    (call != nullptr ? std::string(" in ") + call->entryPoint : ""));
        _exit(1);
    }
}
} // namespace

std::string Telling::wordOf(const Shared& shared)
{
    return std::to_string(shared.word) + " ";
}

void Telling::put(const char* name, const Json::Value& value)
{
    Json::Value part;
    part[name] = value;
    const std::string line = wordOf(shared_) + common::compactJson(part) + "\n";
    const std::lock_guard<std::mutex> lock(mutex_);
    if (survives_) {
        send(line.data(), line.size());
        return;
    }
    endIfCutOff();
    if (line.size() > sizeof shared_.kept - shared_.keptSize) {
        sendKept();
    }
    if (line.size() > sizeof shared_.kept) {
        send(line.data(), line.size());
        return;
    }
    std::memcpy(shared_.kept + shared_.keptSize, line.data(), line.size());
    shared_.keptSize += line.size();
}

void Telling::beginPiece(std::size_t index)
{
    shared_.reached = index * 100;
}

void Telling::reach(unsigned percent)
{
    const std::size_t piece = shared_.reached / 100 * 100;
    shared_.reached = std::max<std::size_t>(shared_.reached, piece + std::min(percent, 99U));
}

void Telling::sendPut()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    sendKept();
}

void Telling::sendKept()
{
    send(shared_.kept, shared_.keptSize);
    shared_.keptSize = 0;
}

void Telling::send(const char* bytes, std::size_t size)
{
    for (std::size_t done = 0; done < size;) {
        const ssize_t count = write(pipe_, bytes + done, size - done);
        if (count < 0 && errno != EINTR) {
            if (survives_) {
                return;
            }
            endIfCutOff();
            _exit(1); // nobody listens any more
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}

void Telling::endIfCutOff() const
{
    if (fcntl(pipe_, F_GETFD) < 0) {
        shared_.isCutOff = true;
        _exit(1);
    }
}

Telling::Telling(int pipe, Shared& shared, bool survives)
    : pipe_(pipe), output_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)), shared_(shared), survives_(survives)
{
}

void Telling::nameSpeaker(const std::string& module)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (module == speaker_ || module.empty()) {
        return;
    }
    speaker_ = module;
    const std::string mark = LibrarySpeech::markOf(module);
    const ssize_t written = write(output_, mark.data(), mark.size());
    static_cast<void>(written); // nobody reads it any more
}

Telling::Call::Call(Telling& telling, const std::string& entryPoint, const std::string& module, bool writes)
    : slot_(nullptr)
{
    telling.nameSpeaker(module);
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

void Telling::Call::staysIfNobodyGoesOn()
{
    const bool isWorks = gettid() == getpid();
    slot_ = isWorks ? nullptr : slot_;
}

// ---- The parent's end ----

Child::Child(const Work& work, Orphaned orphaned, LibrarySpeech::Listener onLine)
    : shared_(makeShared()), speech_(std::move(onLine)), isLasting_(orphaned == Orphaned::kGoesOn)
{
    common::Pipe pipe = common::makePipe("cannot make a pipe");
    const auto inProcess = [&] {
        pipe.reading.reset();
        runWork(work, pipe.writing.get(), *shared_, orphaned);
    };
    process_ = std::make_unique<common::ContainedProcess>(inProcess, orphaned);
    pipe_ = std::move(pipe.reading);
}

std::size_t Child::reached() const
{
    return shared_->reached;
}

Child::~Child()
{
    process_.reset();
    munmap(shared_, sizeof *shared_);
}

void Child::take(const std::string& bytes, const PartHandler& onPart)
{
    const std::string word = Telling::wordOf(*shared_);
    rest_ += bytes;
    std::size_t begin = 0;
    for (std::size_t end; (end = rest_.find('\n', begin)) != std::string::npos; begin = end + 1) {
        const std::string_view line = std::string_view(rest_).substr(begin, end - begin);
        const std::size_t at = line.find(word); // behind what somebody has written without an end of line
        const auto part = at == std::string_view::npos
                              ? std::nullopt
                              : common::parseJsonObject(line.substr(at + word.size()));
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

// What a child that has ended had not sent any more; behind a line that it may not have sent whole.
void Child::takeKept(const PartHandler& onPart)
{
    const std::size_t size = std::min(shared_->keptSize.load(), sizeof shared_->kept);
    take("\n" + std::string(shared_->kept, size), onPart);
}

// What has come through `pipe`, without waiting.
std::string Child::readSome(int pipe)
{
    char chunk[4096];
    pollfd waiting{pipe, POLLIN, 0};
    const ssize_t count = poll(&waiting, 1, 0) > 0 ? read(pipe, chunk, sizeof chunk) : 0;
    return std::string(chunk, count > 0 ? static_cast<std::size_t>(count) : 0);
}

// What the child tells and what it prints, waiting for it at most so long. False when there was neither.
bool Child::passOn(const PartHandler& onPart, int waitMs)
{
    pollfd waiting[] = {
        {pipe_.get(), POLLIN, 0}, {process_->output(), POLLIN, 0}, {process_->news(), POLLIN, 0}};
    poll(waiting, std::size(waiting), waitMs);
    const std::string printed = readSome(process_->output()); // before what is told after it
    speech_.take(printed);
    const std::string told = readSome(pipe_.get());
    take(told, onPart);
    return !printed.empty() || !told.empty();
}

// Everything that the child tells, until it ends or a call is overdue. True for the latter. Nobody waits for
// the ends of the pipes: a process that a library has started may keep them open.
bool Child::collect(const PartHandler& onPart, const std::function<void()>& onPause)
{
    constexpr int kPauseMs = 100;
    constexpr int kMostOfTheRest = 1000; // what the pipes hold is less
    Clock::time_point paused = Clock::now();
    while (!process_->hasEnded()) {
        passOn(onPart, kPauseMs);
        if (Clock::now() - paused >= std::chrono::milliseconds(kPauseMs)) {
            paused = Clock::now();
            onPause();
        }
        if (overdueCall(*shared_) != nullptr) {
            return true;
        }
    }
    for (int count = 0; count < kMostOfTheRest && passOn(onPart, 0); ++count) {
    }
    return false;
}

namespace
{
std::string endedBySignal(const std::string& who, const std::string& where, int signal)
{
    const std::string name = strsignal(signal);
    switch (signal) {
    case SIGABRT:
    case SIGBUS:
    case SIGFPE:
    case SIGILL:
    case SIGSEGV:
    case SIGSYS:
    case SIGTRAP:
        return who + " crashes" + where + " (" + name + ")";
    case SIGKILL:
        return who + " was killed" + where;
    default:
        return who + " was ended" + where + " by a signal (" + name + ")";
    }
}
} // namespace

std::string Child::failureOf(const common::ContainedProcess::End& end)
{
    const int status = end.status;
    const Slot* const call = hasHung_ ? overdueCall(*shared_) : latestCall(*shared_);
    culprit_ = call != nullptr ? call->module : "";
    const std::string who = call != nullptr ? "the control library" : "the process that asks the libraries";
    const std::string where = call != nullptr ? std::string(" in ") + call->entryPoint : "";
    if (hasHung_) {
        return who + " hangs" + where + " (no answer within " + std::to_string(kCallLimit.count()) +
               " seconds)";
    }
    if (isUnwatched_ && !(isDone_ && isLasting_)) {
        return "the control library kills the process that started it" + where;
    }
    if (WIFSIGNALED(status)) {
        return endedBySignal(who, where, WTERMSIG(status));
    }
    if (!exception_.empty()) {
        return exception_;
    }
    if (!isDone_ && shared_->isCutOff) {
        return "a control library closes files of the process that asks it, which are not its own";
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
        process_->kill();
    }
    const common::ContainedProcess::End end = process_->wait();
    takeKept(onPart);
    speech_.finish();
    leftBehind_ = end.leftBehind;
    isUnwatched_ = end.isUnwatched;
    return failureOf(end);
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

// What a library may have changed for all that are asked after it in the same process.
struct Surroundings {
    std::array<rlimit, RLIM_NLIMITS> limits{};
    std::string directory;
    mode_t mask = 0;

    Surroundings() : mask(umask(0))
    {
        umask(mask);
        for (std::size_t resource = 0; resource < limits.size(); ++resource) {
            getrlimit(static_cast<__rlimit_resource_t>(resource), &limits[resource]);
        }
        char path[PATH_MAX];
        directory = getcwd(path, sizeof path) != nullptr ? path : "";
    }
    bool operator==(const Surroundings& other) const
    {
        const auto isSame = [](const rlimit& one, const rlimit& another) {
            return one.rlim_cur == another.rlim_cur && one.rlim_max == another.rlim_max;
        };
        return mask == other.mask && directory == other.directory &&
               std::equal(limits.begin(), limits.end(), other.limits.begin(), isSame);
    }
};

// What goes on after its work belongs to the library that was asked; a moment for what is about to end.
void runPiece(std::size_t index, const std::function<void(std::size_t, Telling&)>& work, Telling& telling)
{
    constexpr std::chrono::milliseconds kGrace{50};
    telling.put(kBegun, static_cast<Json::UInt64>(index));
    telling.beginPiece(index);
    work(index, telling);
    if (const unsigned left = common::endLeftBehind(kGrace); left > 0) {
        telling.put(kLeftBehind, left);
    }
    telling.sendPut();
}
} // namespace

std::string leftBehindText(unsigned count)
{
    return "the control library left " +
           (count == 1 ? std::string("a process") : std::to_string(count) + " processes") +
           " at work; fwctl has ended what it left";
}

Json::Value runIsolated(const Work& work, const LibrarySpeech::Listener& onLine)
{
    return runIsolatedAll(1, [&](std::size_t, Telling& telling) { work(telling); }, onLine).front();
}

namespace
{
// The piece that a child ended in is tried again in a new child, unless it was the first there: what ends it
// may be another's doing. When somebody has killed the watcher, which takes a moment to show, each of the
// pieces so far gets a child of its own.
std::vector<Json::Value> runAll(std::size_t count, const std::function<void(std::size_t, Telling&)>& work,
                                const LibrarySpeech::Listener& onLine)
{
    common::ReadingProgress progress("Looking at the modules", count * 100);
    const auto onLineAlone = [&](const std::string& line) {
        progress.clear();
        onLine(line);
    };
    std::vector<Json::Value> told(count, Json::Value(Json::objectValue));
    std::size_t aloneUntil = 0;
    for (std::size_t first = 0; first < count;) {
        const std::size_t end = first < aloneUntil ? first + 1 : count;
        std::size_t current = first;
        Child child(
            [&](Telling& telling) {
                const Surroundings before;
                for (std::size_t index = first; index < end && Surroundings() == before; ++index) {
                    runPiece(index, work, telling);
                }
            },
            Child::Orphaned::kEnds, onLineAlone);
        const auto onPart = [&](const Json::Value& part) {
            if (part.isMember(kBegun)) { // of ours: see wordOf()
                current = part[kBegun].asUInt64();
                told[current] = Json::objectValue;
            } else {
                merge(told[current], part);
            }
        };
        const std::string failure = child.wait(onPart, [&] { progress.reach(child.reached()); });
        if (failure.empty()) {
            first = current + 1;
            continue;
        }
        if (child.isUnwatched() && end > first + 1) {
            aloneUntil = current + 1;
            continue;
        }
        if (current > first && !child.hasHung()) {
            first = current;
            continue;
        }
        told[current]["failure"] = failure;
        if (child.leftBehind() > 0) {
            told[current][kLeftBehind] = child.leftBehind();
        }
        first = current + 1;
    }
    return told;
}
} // namespace

std::vector<Json::Value> runIsolatedAll(std::size_t count,
                                        const std::function<void(std::size_t, Telling&)>& work,
                                        const LibrarySpeech::Listener& onLine)
{
    return common::readToTheEnd([&] { return runAll(count, work, onLine); });
}

} // namespace fwctl
