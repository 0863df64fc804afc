#include "tools/fwmod/check/examiner/worker/worker.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cxxabi.h>
#include <fcntl.h>
#include <fstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "common/json-text.h"
#include "tools/fwmod/check/examiner/machine/hardware-copy.h"
#include "tools/fwmod/check/examiner/worker/calling.h"
#include "tools/fwmod/check/protocol/report.h"

namespace fwmod::examiner
{

using common::openDescriptors;
using common::ProcessState;

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::milliseconds kRepeatLimit = 2s; // a slow call is not repeated as often
constexpr int kLeastTimes = 2;

} // namespace

std::string callName(const std::string& name, const std::string& where)
{
    return where.empty() ? name : name + " " + where;
}

void realSleep(std::chrono::nanoseconds duration)
{
    const timespec time = {0, static_cast<long>(duration.count())};
    syscall(SYS_nanosleep, &time, nullptr);
}

void complainOfSlowness(const Worker& worker, const std::string& name, const Returned& returned, FindingId id,
                        double most)
{
    if (returned.taken.count() <= most) {
        return;
    }
    char text[64];
    std::snprintf(text, sizeof text, " took %.1f s", returned.taken.count());
    worker.found(id, name + text);
}

FindingId findingOf(common::ProcessChange::Kind kind)
{
    using Kind = common::ProcessChange::Kind;
    switch (kind) {
    case Kind::kDirectory:
        return FindingId::WorkingDirectory;
    case Kind::kSignals:
        return FindingId::SignalHandling;
    case Kind::kLocale:
        return FindingId::Locale;
    case Kind::kEnvironment:
        return FindingId::Environment;
    case Kind::kFileModeMask:
        return FindingId::FileModeMask;
    case Kind::kTimer:
        return FindingId::TimerLeft;
    case Kind::kThread:
        return FindingId::ThreadLeft;
    default:
        return FindingId::ChildLeft;
    }
}

std::string quote(const std::string& text)
{
    constexpr std::size_t kLongest = 40;
    std::string result = "\"";
    for (const char c : text.substr(0, kLongest)) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, c >= ' ' && c < 127 ? "%c" : "\\x%02x",
                      static_cast<unsigned int>(static_cast<unsigned char>(c)));
        result += escaped;
    }
    return result +
           (text.size() > kLongest ? "...\" (" + std::to_string(text.size()) + " characters)" : "\"");
}

std::string errorName(int error)
{
    return error == 0 ? "0" : std::string(strerrordesc_np(error));
}

std::string whyNoCause(int error)
{
    constexpr int kErrors[] = {ENOENT, EEXIST, ENOTEMPTY, ENOTDIR, EISDIR, EBADF,
                               ESPIPE, ENOTTY, ECHILD,    ESRCH,   EXDEV};
    if (error == 0) {
        return "left errno 0";
    }
    const bool isOfTidyingUp = std::find(std::begin(kErrors), std::end(kErrors), error) != std::end(kErrors);
    return isOfTidyingUp ? "left errno \"" + errorName(error) + "\", which is no cause of that" : "";
}

std::string entryPointOf(const std::string& call)
{
    return call.substr(0, call.find_first_of(" ("));
}

// ---- To the supervisor ----

namespace
{
void sendMessage(int channel, const std::string& text)
{
    send(channel, text.data(), text.size(), MSG_NOSIGNAL);
}
} // namespace

void Worker::found(FindingId id, const std::string& detail) const
{
    sendMessage(channel_, lineOf(Finding{id, detail}));
}

void Worker::tell(const std::string& key, const Json::Value& value) const
{
    Json::Value message;
    message["key"] = key;
    message["value"] = value;
    sendMessage(channel_, common::compactJson(message));
}

// ---- One call ----

std::chrono::milliseconds updateLimit(const Job& job)
{
    // The real duration is to be known, also of an update that takes twice as long as expected.
    const std::chrono::milliseconds patience = std::chrono::seconds(2 * job.expectedTime + 10);
    if (job.measured <= 0) {
        return patience;
    }
    return std::min(patience, std::chrono::milliseconds(static_cast<int>(4000 * job.measured) + 5000));
}

bool Worker::isSuspect(const std::string& call) const
{
    return suspects_.count(call) != 0 || suspects_.count(entryPointOf(call)) != 0;
}

bool Worker::isAnySuspect(const std::string& entryPoint) const
{
    return std::any_of(suspects_.begin(), suspects_.end(),
                       [&](const std::string& call) { return entryPointOf(call) == entryPoint; });
}

namespace
{
// What a descriptor leads to; 0 when it is closed.
ino_t leadsTo(int descriptor)
{
    struct stat file = {};
    return fstat(descriptor, &file) == 0 ? file.st_ino : 0;
}

// pthread_exit unwinds the stack and must not be kept from it; here the process is the library's alone.
int callOnThread(const std::function<int()>& function, BlackBox& box)
{
    try {
        const common::LimitsKeeper limits(box.limits);
        return function();
    } catch (const abi::__forced_unwind&) {
        box.threadEnded = true;
        _exit(0);
    }
}
} // namespace

Worker::Worker(const Job& job, const std::set<std::string>& suspects, int channel, BlackBox& box)
    : job_(job), suspects_(suspects), channel_(channel), box_(box)
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, channel}) {
        ownDescriptors_.emplace_back(descriptor, leadsTo(descriptor));
    }
}

// Without them nothing can be reported, and the next file that is opened takes their number.
void Worker::requireOwnDescriptors(const std::string& name)
{
    for (const auto& [descriptor, target] : ownDescriptors_) {
        if (leadsTo(descriptor) == target) {
            continue;
        }
        std::snprintf(box_.closedBy, sizeof box_.closedBy, "%s", name.c_str());
        _exit(0);
    }
}

namespace
{
// Of standard input, output and error.
std::array<int, 3> standardFlags()
{
    return {fcntl(STDIN_FILENO, F_GETFL), fcntl(STDOUT_FILENO, F_GETFL), fcntl(STDERR_FILENO, F_GETFL)};
}
} // namespace

// Puts them back, so that each call is told of its own.
void Worker::complainOfFlags(const std::string& name, const std::array<int, 3>& before) const
{
    const std::array<int, 3> after = standardFlags();
    if (after == before) {
        return;
    }
    for (std::size_t descriptor = 0; descriptor < before.size(); ++descriptor) {
        if (after[descriptor] == before[descriptor]) {
            continue;
        }
        const bool isNonBlocking = (after[descriptor] & O_NONBLOCK) != (before[descriptor] & O_NONBLOCK);
        found(FindingId::DescriptorFlags, name + " changed the flags of descriptor " +
                                              std::to_string(descriptor) +
                                              (isNonBlocking ? ", O_NONBLOCK" : ""));
    }
    for (std::size_t descriptor = 0; descriptor < before.size(); ++descriptor) {
        fcntl(static_cast<int>(descriptor), F_SETFL, before[descriptor]);
    }
}

std::optional<Returned> Worker::call(const std::string& name, std::chrono::milliseconds limit,
                                     const std::function<int()>& function)
{
    if (isSuspect(name)) {
        return std::nullopt;
    }
    const std::optional<ProcessState> before =
        areMannersWatched_ ? std::optional(ProcessState::now()) : std::nullopt;
    const std::array<int, 3> flags = standardFlags();
    std::optional<Returned> returned;
    try {
        const Stopwatch stopwatch;
        const CallMark mark(name.c_str(), limit);
        box_.closedTwice = 0;
        forgetMoments();
        errno = 0;
        const int result = callOnThread(function, box_);
        const int error = errno;
        returned = Returned{result, error, stopwatch.read()};
    } catch (const std::exception& error) {
        found(FindingId::Exception, name + " threw: " + error.what());
    } catch (...) {
        found(FindingId::Exception, name + " threw something that is no std::exception");
    }
    requireOwnDescriptors(name);
    std::set<FindingId> left; // otherwise than before
    if (box_.limits.words[0] != '\0') {
        found(FindingId::LimitChanged, name + ": " + box_.limits.words);
        box_.limits.words[0] = '\0';
        left.insert(FindingId::LimitChanged);
    }
    if (!before) {
        return returned;
    }
    complainOfFlags(name, flags);
    if (const int closed = box_.closedTwice.exchange(0); closed != 0) {
        found(FindingId::ForeignDescriptorsClosed,
              name + " closed descriptor " + std::to_string(closed - 1) + ", which was not open any more");
    }
    const ProcessState after = before->settled();
    for (const common::ProcessChange& change : before->changesIn(after)) {
        found(findingOf(change.kind), name + ": " + change.seen);
        left.insert(findingOf(change.kind));
    }
    complainOfMoments(name, left);
    return returned;
}

void Worker::forgetMoments()
{
    for (BlackBox::Moment& moment : box_.moments) {
        moment.finding = 0;
    }
}

// What is put back at the end is another one's for that long: other threads are at work.
void Worker::complainOfMoments(const std::string& name, const std::set<FindingId>& left) const
{
    for (const BlackBox::Moment& moment : box_.moments) {
        const std::optional<FindingId> finding = findingsTable().withNumber(moment.finding);
        if (finding && left.count(*finding) == 0) {
            found(*finding, name + ", while it runs: " + moment.words);
        }
    }
}

namespace
{
std::string counted(std::size_t number, const std::string& what)
{
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}
} // namespace

OpenFiles OpenFiles::now()
{
    OpenFiles open;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        open.mappings += line.find(kHardware) != std::string::npos ? 1 : 0;
    }
    maps.close();
    open.descriptors = openDescriptors();
    return open;
}

std::string OpenFiles::moreThan(const OpenFiles& before) const
{
    std::string text;
    if (descriptors > before.descriptors) {
        text = counted(descriptors - before.descriptors, "descriptor");
    }
    if (mappings > before.mappings) {
        text += (text.empty() ? "" : " and ") + counted(mappings - before.mappings, "mapping");
    }
    return text.empty() ? "" : text + " more";
}

bool Worker::repeat(const std::string& name, int times, const std::function<bool()>& ask)
{
    const std::int64_t end = realNow() + std::chrono::nanoseconds(kRepeatLimit).count();
    const int settled = (times + 1) / 2; // what is kept open for good has been opened by then
    OpenFiles first;
    int time = 0;
    for (; time < times && (time < kLeastTimes || realNow() < end); ++time) {
        if (time == settled) {
            first = OpenFiles::now();
        }
        if (!ask()) {
            return false;
        }
    }
    const std::string more = time > settled ? OpenFiles::now().moreThan(first) : "";
    if (!more.empty()) {
        found(FindingId::DescriptorsLeft,
              name + ": " + more + " after " + counted(static_cast<std::size_t>(time - settled), "call"));
    }
    return true;
}
} // namespace fwmod::examiner
