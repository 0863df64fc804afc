#include "tools/fwmod/check/examiner/worker.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <cxxabi.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "common/daemon/entry-points.h"
#include "common/json-text.h"
#include "common/process/guarded-buffer.h"
#include "common/process/process-state.h"
#include "tools/fwmod/check/examiner/machine/hardware-copy.h"
#include "tools/fwmod/check/examiner/machine/hardware-openings.h"
#include "tools/fwmod/check/protocol/report.h"

namespace fwmod::examiner
{

using common::GuardedBuffer;
using common::openDescriptors;
using common::ProcessorDelay;
using common::ProcessState;

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::milliseconds kQuestionLimit = 8s; // they are instant; the rest is for a loaded machine
constexpr std::chrono::nanoseconds kPollInterval = 10ms;
constexpr std::chrono::milliseconds kRepeatLimit = 2s; // a slow call is not repeated as often
constexpr int kLeastTimes = 2;
constexpr int kLooksForState = 8;    // a look at the progress takes less
constexpr double kSlowNotice = 1.0;  // seconds
constexpr double kDearContext = 0.4; // seconds of setContext, which is to be cheap

std::string callName(const std::string& name, const std::string& where)
{
    return where.empty() ? name : name + " " + where;
}

void realSleep(std::chrono::nanoseconds duration)
{
    const timespec time = {0, static_cast<long>(duration.count())};
    syscall(SYS_nanosleep, &time, nullptr);
}

// Time that a call took, less what its thread waited for a processor.
class Stopwatch
{
public:
    Stopwatch() : delayBefore_(delay_.soFar()), begin_(realNow()) {}
    std::chrono::duration<double> read() const
    {
        const std::chrono::nanoseconds wall(realNow() - begin_);
        return std::max(wall - (delay_.soFar() - delayBefore_), std::chrono::nanoseconds(0));
    }

private:
    ProcessorDelay delay_;
    std::chrono::nanoseconds delayBefore_;
    std::int64_t begin_;
};

// What the progress was while doUpdate ran, for the judgement of the whole update.
struct ProgressWatch {
    int samples = 0;
    int failures = 0;
    int values = 0; // different ones in a row
    unsigned int last = 0;
    unsigned int highest = 0;
    bool hasRisen = false;
    std::string fall;   // the first one, in words
    double slowest = 0; // seconds

    void add(unsigned int value);
    Json::Value toJson() const;
};

void ProgressWatch::add(unsigned int value)
{
    const bool isFirst = samples++ == 0;
    values += isFirst || value != last ? 1 : 0;
    if (!isFirst && value > last) {
        hasRisen = true;
    }
    // Before the first rise it may be what an earlier update has left.
    if (!isFirst && value < last && hasRisen && fall.empty()) {
        fall = "from " + std::to_string(last) + " to " + std::to_string(value);
    }
    last = value;
    highest = std::max(highest, value);
}

Json::Value ProgressWatch::toJson() const
{
    Json::Value json;
    json["samples"] = samples;
    json["failures"] = failures;
    json["values"] = values;
    json["last"] = last;
    json["highest"] = highest;
    json["fall"] = fall;
    json["slowest"] = slowest;
    return json;
}
} // namespace

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
} // namespace

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

// ---- Loading ----

namespace
{
void complainOfSlowness(const Worker& worker, const std::string& name, const Returned& returned,
                        FindingId id = FindingId::SlowQuestion, double most = kSlowNotice)
{
    if (returned.taken.count() <= most) {
        return;
    }
    char text[64];
    std::snprintf(text, sizeof text, " took %.1f s", returned.taken.count());
    worker.found(id, name + text);
}

// Older linkers put them into every library.
bool isLinkersName(const std::string& name)
{
    constexpr const char* kNames[] = {"_init", "_fini", "__bss_start", "_edata", "_end"};
    return std::find(std::begin(kNames), std::end(kNames), name) != std::end(kNames);
}

// Told by itself.
bool isMangledEntryPoint(const Job& job, const std::string& name)
{
    return std::any_of(job.mangled.begin(), job.mangled.end(),
                       [&](const auto& entry) { return entry.second == name; });
}
} // namespace

// Before the library is loaded: the process has then what the daemon links. The program's own names are
// passed over: some of them stand in the place of a library's.
void Worker::lookForClashes() const
{
    std::string others;
    for (const std::string& name : job_.otherNames) {
        Dl_info theirs = {};
        void* const address = dlsym(RTLD_NEXT, name.c_str());
        if (address != nullptr && dladdr(address, &theirs) != 0) {
            const std::string file = theirs.dli_fname;
            found(FindingId::ClashingName,
                  name + ", which " + file.substr(file.rfind('/') + 1) + " has, too");
        } else if (!isLinkersName(name) && !isMangledEntryPoint(job_, name)) {
            others += (others.empty() ? "" : ", ") + name;
        }
    }
    if (!others.empty()) {
        constexpr std::size_t kMost = 200; // characters
        found(FindingId::OtherNames, others.substr(0, kMost) + (others.size() > kMost ? "..." : ""));
    }
}

bool Worker::load()
{
    const std::string name = "loading";
    if (areMannersWatched_) {
        lookForClashes();
    }
    void* handle = nullptr;
    std::string error;
    const auto returned = call(name, kQuestionLimit, [&] {
        handle = dlopen(job_.library.c_str(), RTLD_NOW);
        const char* const text = handle == nullptr ? dlerror() : nullptr;
        error = text != nullptr ? text : "";
        return 0;
    });
    if (returned) {
        complainOfSlowness(*this, name, *returned);
    }
    if (handle == nullptr) {
        if (!error.empty()) {
            explainLoadError(error);
        }
        return false;
    }
    bool isComplete = true;
    const auto take = [&](auto*& slot, const common::EntryPoint& entry) {
        dlerror();
        void* const address = dlsym(handle, entry.name);
        const bool isThere = dlerror() == nullptr;
        slot = reinterpret_cast<std::remove_reference_t<decltype(slot)>>(address);
        if (address != nullptr) {
            return;
        }
        isComplete = isComplete && !entry.isRequired;
        const auto mangled = job_.mangled.find(entry.name);
        if (isThere || mangled != job_.mangled.end()) {
            flawed_.insert(entry.name);
        }
        if (isThere) {
            found(FindingId::NullEntryPoint, entry.name);
        } else if (mangled != job_.mangled.end()) {
            found(FindingId::MangledEntryPoint,
                  std::string(entry.name) + " is exported as " + mangled->second);
        } else if (entry.isRequired) {
            found(FindingId::MissingEntryPoint, entry.name);
        }
    };
    take(setContext_, common::entryPoint("setContext"));
    take(getEMPID_, common::entryPoint("getEMPID"));
    take(getActiveVersion_, common::entryPoint("getActiveVersion"));
    take(checkVersion_, common::entryPoint("checkVersion"));
    take(doUpdate_, common::entryPoint("doUpdate"));
    take(allUpdateDone_, common::entryPoint("allUpdateDone"));
    take(doUpdateDecryption_, common::entryPoint("doUpdate_decryption"));
    take(getExpectedTime_, common::entryPoint("getExpectedTime"));
    take(getUpdateProgress_, common::entryPoint("getUpdateProgress"));
    return isComplete;
}

void Worker::explainLoadError(const std::string& error) const
{
    struct Kind {
        const char* words; // of the dynamic loader
        FindingId finding;
    };
    constexpr Kind kKinds[] = {{"undefined symbol", FindingId::UndefinedSymbols},
                               {"file too short", FindingId::NoSharedLibrary},
                               {"invalid ELF", FindingId::NoSharedLibrary},
                               {"wrong ELF class", FindingId::NoSharedLibrary},
                               {"only ET_DYN", FindingId::NoSharedLibrary},
                               {"cannot read file data", FindingId::NoSharedLibrary},
                               {"position-independent executable", FindingId::NoSharedLibrary},
                               {"ELF load command", FindingId::NoSharedLibrary},
                               {"ELF file's phentsize", FindingId::NoSharedLibrary}};
    for (const Kind& kind : kKinds) {
        if (error.find(kind.words) != std::string::npos) {
            return found(kind.finding, error);
        }
    }
    found(FindingId::NotLoaded, error);
}

bool Worker::has(const char* entryPoint) const
{
    const std::string name = entryPoint;
    if (name == "doUpdate_decryption") {
        return doUpdateDecryption_ != nullptr && !job_.isExternal;
    }
    if (name == "getExpectedTime") {
        return getExpectedTime_ != nullptr && !job_.isExternal;
    }
    if (name == "getUpdateProgress") {
        return getUpdateProgress_ != nullptr;
    }
    return name == "allUpdateDone" && allUpdateDone_ != nullptr;
}

// ---- Questions ----

namespace
{
// A text that was written into the buffer, or what is wrong with it.
std::optional<std::string> takeText(const Worker& worker, const std::string& name, const GuardedBuffer& out)
{
    if (out.isTouchedBefore()) {
        worker.found(FindingId::OutsideOfBuffer, name + ": bytes before its buffer were changed");
        return std::nullopt;
    }
    if (!out.isTerminated()) {
        worker.found(FindingId::UnterminatedText, name + " left no zero byte in " +
                                                      std::to_string(TARNWICK_CONTROL_TEXT_SIZE) +
                                                      " bytes, which begin with " + quote(out.text()));
        return std::nullopt;
    }
    return out.text();
}

void complainOfFailure(const Worker& worker, const std::string& name, const Returned& returned,
                       FindingId id = FindingId::QuestionFailed)
{
    std::string detail = name + " returned " + std::to_string(returned.result);
    if (returned.error != 0) {
        detail += std::string(" (errno: ") + strerrordesc_np(returned.error) + ")";
    }
    worker.found(id, detail);
}

bool isAscii(const std::string& text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

// A number that a question has written: nothing, and a finding, when it has not.
template <typename T>
std::optional<T> takeNumber(const Worker& worker, const std::string& name, GuardedBuffer& out)
{
    if (out.isTouchedBefore()) {
        worker.found(FindingId::OutsideOfBuffer, name + ": bytes before its result were changed");
    }
    if (!out.isAll(GuardedBuffer::kPoison)) {
        return *out.as<T>();
    }
    worker.found(FindingId::UnwrittenAnswer, name + " returned 0 and wrote no result");
    return std::nullopt;
}
} // namespace

bool Worker::setContext(int caller, const char* context, const std::string& where)
{
    std::string name = "setContext(" + std::to_string(caller);
    name += context == nullptr ? ", null)" : ", " + quote(context) + ")";
    name = callName(name, where);
    GuardedBuffer library("the library's name", job_.name);
    const std::string content = context != nullptr ? context : "";
    GuardedBuffer text("the context", content.size() + 1); // may be written: the parameter is not const
    std::copy_n(content.c_str(), content.size() + 1, text.as<char>());
    const HardwareOpenings openings(areMannersWatched_);
    const auto returned = call(name, kQuestionLimit, [&] {
        return setContext_(library.as<char>(), caller, context != nullptr ? text.as<char>() : nullptr);
    });
    if (!returned) {
        return false;
    }
    if (const std::string file = openings.first(); !file.empty()) {
        found(FindingId::ContextTouchesHardware, name + " opened " + file);
    }
    complainOfSlowness(*this, name, *returned, FindingId::SlowQuestion, kDearContext);
    constexpr int kDaemonsOwn[] = {TARNWICK_CONTROL_CALLER_PACKAGE, TARNWICK_CONTROL_CALLER_ENCRYPTED_IMAGE,
                                   TARNWICK_CONTROL_CALLER_SYSTEM_IMAGE};
    const bool isDaemons =
        std::find(std::begin(kDaemonsOwn), std::end(kDaemonsOwn), caller) != std::end(kDaemonsOwn);
    if (returned->result != 0) {
        complainOfFailure(*this, name, *returned,
                          isDaemons ? FindingId::QuestionFailed : FindingId::UnknownCallerRefused);
    }
    return returned->result == 0;
}

std::optional<std::string> Worker::identifier(const std::string& where)
{
    const std::string name = callName("getEMPID", where);
    GuardedBuffer out("the identifier's buffer", TARNWICK_CONTROL_TEXT_SIZE);
    out.fill(0);
    const auto returned = call(name, kQuestionLimit, [&] { return getEMPID_(out.as<char>()); });
    if (!returned) {
        return std::nullopt;
    }
    complainOfSlowness(*this, name, *returned);
    if (returned->result != 0) {
        complainOfFailure(*this, name, *returned);
        if (!out.isAll(0)) {
            found(FindingId::UnwrittenAnswer, name + " returned " + std::to_string(returned->result) +
                                                  " and wrote an identifier all the same, which is taken");
        }
        return std::nullopt;
    }
    if (out.isAll(0)) {
        found(FindingId::UnwrittenAnswer, name + " returned 0 and wrote no identifier");
        return std::nullopt;
    }
    return takeText(*this, name, out);
}

std::optional<std::string> Worker::activeVersion(const std::string& where)
{
    const std::string name = callName("getActiveVersion", where);
    GuardedBuffer out("the version's buffer", TARNWICK_CONTROL_TEXT_SIZE);
    const auto returned = call(name, kQuestionLimit, [&] { return getActiveVersion_(out.as<char>()); });
    if (!returned) {
        return std::nullopt;
    }
    complainOfSlowness(*this, name, *returned);
    if (returned->result != 0) {
        complainOfFailure(*this, name, *returned);
        return std::nullopt;
    }
    if (out.isAll(GuardedBuffer::kPoison)) {
        found(FindingId::UnwrittenAnswer, name + " returned 0 and wrote no version");
        return std::nullopt;
    }
    std::optional<std::string> version = takeText(*this, name, out);
    if (version && version->empty()) {
        found(FindingId::EmptyVersion, name + " returned 0 and an empty text");
        return std::nullopt;
    }
    if (version && !isAscii(*version)) {
        found(FindingId::NotAscii, name + " told " + quote(*version));
    }
    return version;
}

std::optional<std::string> Worker::activeVersionUnread(const std::string& where)
{
    box_.failedReads = 0;
    box_.failingReads = BlackBox::kOfHardware;
    std::optional<std::string> version = activeVersion(where);
    box_.failingReads = BlackBox::kNone;
    return box_.failedReads > 0 ? version : std::nullopt;
}

std::optional<Worker::Verdict> Worker::checkVersion(const std::string& version, const std::string& where)
{
    const std::string name = callName("checkVersion(" + quote(version) + ")", where);
    GuardedBuffer offered("the offered version", version);
    GuardedBuffer out("the verdict", sizeof(int));
    const auto returned =
        call(name, kQuestionLimit, [&] { return checkVersion_(offered.as<char>(), out.as<int>()); });
    if (!returned) {
        return std::nullopt;
    }
    complainOfSlowness(*this, name, *returned);
    if (returned->result != 0) {
        if (out.isAll(GuardedBuffer::kPoison)) {
            found(FindingId::UnwrittenVerdict,
                  name + " returned " + std::to_string(returned->result) + " and wrote no result");
        }
        return Verdict{returned->result, 0};
    }
    const std::optional<int> verdict = takeNumber<int>(*this, name, out);
    if (!verdict) {
        return std::nullopt;
    }
    if (*verdict < TARNWICK_CONTROL_VERDICT_OLDER || *verdict > TARNWICK_CONTROL_VERDICT_NEWER) {
        found(FindingId::OddVerdict, name + " wrote " + std::to_string(*verdict));
    }
    return Verdict{0, *verdict};
}

std::optional<int> Worker::expectedTime()
{
    const std::string name = "getExpectedTime";
    GuardedBuffer out("the expected time", sizeof(int));
    const auto returned = call(name, kQuestionLimit, [&] { return getExpectedTime_(out.as<int>()); });
    if (!returned) {
        return std::nullopt;
    }
    complainOfSlowness(*this, name, *returned);
    if (returned->result != 0) {
        complainOfFailure(*this, name, *returned);
        return std::nullopt;
    }
    return takeNumber<int>(*this, name, out);
}

std::optional<unsigned int> Worker::progress(const std::string& where)
{
    const std::string name = callName("getUpdateProgress", where);
    GuardedBuffer out("the progress", sizeof(unsigned int));
    const auto returned =
        call(name, kQuestionLimit, [&] { return getUpdateProgress_(out.as<unsigned int>()); });
    if (!returned) {
        return std::nullopt;
    }
    complainOfSlowness(*this, name, *returned);
    if (returned->result != 0) {
        found(FindingId::NoProgress,
              name + " returned " + std::to_string(returned->result) + " while no update ran");
        return std::nullopt;
    }
    const std::optional<unsigned int> percent = takeNumber<unsigned int>(*this, name, out);
    if (percent && *percent > 100) {
        found(FindingId::ProgressOver100,
              name + " told " + std::to_string(*percent) + " while no update ran");
    }
    return percent;
}

void Worker::allUpdateDone(const std::string& where)
{
    const std::string name = callName("allUpdateDone", where);
    const auto returned = call(name, kQuestionLimit, [&] { return allUpdateDone_(); });
    if (!returned) {
        return;
    }
    complainOfSlowness(*this, name, *returned, FindingId::SlowAllUpdateDone);
    if (returned->result != 0) {
        found(FindingId::NoticeFails, name + " returned " + std::to_string(returned->result));
    }
}

// ---- Updates ----

// On a thread of its own, as the daemon's workers are; what it writes counts as the update's.
std::optional<Returned> Worker::install(const std::string& name, const std::function<int()>& function)
{
    std::optional<Returned> returned;
    std::thread([&] {
        const CallingThread self(0);
        returned = call(name, updateLimit(job_), [&] {
            ++box_.update;
            box_.writes = 0;
            box_.phase = BlackBox::kRunning;
            const int result = function();
            const int error = errno;
            box_.phase = BlackBox::kSettling;
            errno = error;
            return result;
        });
        box_.phase = BlackBox::kOver;
    }).join();
    return returned;
}

std::optional<Returned> Worker::decrypt(const std::string& data, int length, const std::string& what)
{
    GuardedBuffer content("the data", std::max<std::size_t>(data.size(), 1));
    std::copy(data.begin(), data.end(), content.as<char>());
    content.makeReadOnly();
    return install("doUpdate_decryption(" + what + ")",
                   [&] { return doUpdateDecryption_(content.as<unsigned char>(), length); });
}

std::optional<Returned> Worker::decryptWithSpoiltWrite(unsigned int number, const std::string& data,
                                                       const std::string& what)
{
    box_.spoiltWrite = number;
    const std::optional<Returned> returned = decrypt(data, static_cast<int>(data.size()), what);
    box_.spoiltWrite = 0;
    return returned;
}

std::optional<Returned> Worker::callUpdate(const std::string& name, const Update& update)
{
    GuardedBuffer image("the image's name", update.image);
    const std::optional<Returned> returned =
        install(name, [&] { return doUpdate_(image.as<char>(), update.checksum); });
    if (returned && areMannersWatched_) {
        complainOfKeptImage(name);
    }
    return returned;
}

// The package that it is in could not be taken away.
void Worker::complainOfKeptImage(const std::string& name) const
{
    if (job_.imageDirectory.empty()) {
        return;
    }
    const auto isImage = [&](const std::string& path) {
        return path.compare(0, job_.imageDirectory.size() + 1, job_.imageDirectory + "/") == 0;
    };
    std::error_code gone;
    for (const std::filesystem::directory_entry& entry :
         std::filesystem::directory_iterator("/proc/self/fd")) {
        if (isImage(std::filesystem::read_symlink(entry.path(), gone))) {
            return found(FindingId::DescriptorsLeft, name + ": the image is still open");
        }
    }
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        const std::size_t path = line.find('/');
        if (path != std::string::npos && isImage(line.substr(path))) {
            return found(FindingId::DescriptorsLeft, name + ": the image is still mapped");
        }
    }
}

std::optional<Returned> Worker::updateWithFault(const Fault& fault, const Update& update)
{
    (fault.isFlush ? box_.failingFlush : box_.failingWrite) = fault.number;
    const std::optional<Returned> returned = callUpdate(callName("doUpdate", update.where), update);
    box_.failingFlush = 0;
    box_.failingWrite = 0;
    return returned;
}

std::optional<Returned> Worker::updateUnread(const Update& update)
{
    box_.failedReads = 0;
    box_.failingReads = BlackBox::kOfImage;
    const std::optional<Returned> returned = callUpdate(callName("doUpdate", update.where), update);
    box_.failingReads = BlackBox::kNone;
    return box_.failedReads > 0 ? returned : std::nullopt;
}

// Nothing when it is not told, or the update does not run any more.
std::optional<unsigned int> Worker::progressDuringUpdate() const
{
    const std::string name = "getUpdateProgress during doUpdate";
    unsigned int percent = 0;
    if (!has("getUpdateProgress") || isAnySuspect("getUpdateProgress")) {
        return std::nullopt;
    }
    const CallMark mark(name.c_str(), updateLimit(job_) + kQuestionLimit);
    const bool isTold = getUpdateProgress_(&percent) == 0;
    return isTold && box_.phase == BlackBox::kRunning ? std::optional(percent) : std::nullopt;
}

// Another call has come between two looks at the progress: of itself that only rises.
void Worker::requireProgressKept(std::optional<unsigned int> before, const std::string& name)
{
    if (!before || hasProgressFallen_) {
        return;
    }
    const std::optional<unsigned int> after = progressDuringUpdate();
    if (after && *after < *before) {
        hasProgressFallen_ = true;
        found(FindingId::FallingProgress, "getUpdateProgress fell from " + std::to_string(*before) + " to " +
                                              std::to_string(*after) + " at " + name);
    }
}

// What the questions answer is not judged: they may wait for the write, or fail. Gives how often they were
// asked.
int Worker::askDuringUpdate(const std::atomic<bool>& isOver)
{
    const std::string contextName = "setContext during doUpdate";
    const std::string versionName = "getActiveVersion during doUpdate";
    const std::string verdictName = "checkVersion during doUpdate";
    const std::chrono::milliseconds limit = updateLimit(job_) + kQuestionLimit;
    GuardedBuffer out("the version's buffer", TARNWICK_CONTROL_TEXT_SIZE);
    GuardedBuffer offered("the offered version", job_.version.value_or("1.0"));
    GuardedBuffer verdict("the verdict", sizeof(int));
    GuardedBuffer library("the library's name", job_.name);
    GuardedBuffer context("the context", 1);
    const auto ask = [&](const std::string& name, const std::function<void()>& question) {
        if (isSuspect(name)) {
            return;
        }
        const std::optional<unsigned int> before = progressDuringUpdate();
        {
            const CallMark mark(name.c_str(), limit);
            question();
        }
        requireProgressKept(before, name);
    };
    context.fill(0);
    int asked = 0;
    for (; !isOver; realSleep(200us)) {
        if (box_.phase != BlackBox::kRunning || box_.writes == 0) {
            continue;
        }
        ask(contextName, [&] { setContext_(library.as<char>(), job_.caller, context.as<char>()); });
        ask(versionName, [&] { getActiveVersion_(out.as<char>()); });
        ask(verdictName, [&] { checkVersion_(offered.as<char>(), verdict.as<int>()); });
        ++asked;
    }
    return asked;
}

std::optional<Returned> Worker::updateUnderQuestions(const Update& update)
{
    std::atomic<bool> isOver{false};
    int asked = 0;
    std::thread questions([&] {
        const CallingThread self(1);
        try {
            asked = askDuringUpdate(isOver);
        } catch (...) {
            found(FindingId::Exception, "a question during doUpdate threw");
        }
    });
    const std::optional<Returned> returned = callUpdate(callName("doUpdate", update.where), update);
    isOver = true;
    questions.join();
    tell("asked", asked);
    return returned;
}

std::optional<Returned> Worker::updateUnderNotices(const Update& update)
{
    const std::string noticeName = "allUpdateDone during doUpdate";
    std::atomic<bool> isOver{false};
    double longest = 0; // seconds of a notice that began in the update
    double idle = 1;    // seconds that it takes otherwise, at best
    for (int time = 0; time < 5; ++time) {
        const std::optional<Returned> before =
            call("allUpdateDone before doUpdate", kQuestionLimit, [&] { return allUpdateDone_(); });
        if (!before) {
            return std::nullopt;
        }
        idle = std::min(idle, before->taken.count());
    }
    std::thread notices([&] {
        const CallingThread self(1);
        for (; !isOver && !isSuspect(noticeName); realSleep(100us)) {
            if (box_.phase != BlackBox::kRunning) {
                continue;
            }
            try {
                const std::optional<unsigned int> before = progressDuringUpdate();
                const Stopwatch stopwatch;
                {
                    const CallMark mark(noticeName.c_str(), updateLimit(job_) + kQuestionLimit);
                    allUpdateDone_();
                }
                longest = std::max(longest, stopwatch.read().count());
                requireProgressKept(before, noticeName);
            } catch (...) {
                found(FindingId::Exception, noticeName + " threw");
                return;
            }
        }
    });
    const std::string name = callName("doUpdate", update.where);
    const std::optional<Returned> returned = callUpdate(name, update);
    isOver = true;
    notices.join();
    if (returned && returned->taken.count() > 0) {
        tell("noticeWaited", (longest - 2 * idle) / returned->taken.count());
    }
    return returned;
}

namespace
{
// What is put back at the end is another one's for that long; what the call has started may run.
bool isWrongForAMoment(const common::ProcessChange& change)
{
    using Kind = common::ProcessChange::Kind;
    return change.kind != Kind::kTimer && change.kind != Kind::kThread && change.kind != Kind::kProcess;
}
} // namespace

void Worker::complainOfMoment(const std::string& name, const ProcessState& before) const
{
    for (const common::ProcessChange& change : before.changesIn(ProcessState::now())) {
        if (isWrongForAMoment(change)) {
            found(findingOf(change.kind), name + ", while it runs: " + change.seen);
        }
    }
}

std::optional<Returned> Worker::update(const Update& update)
{
    const std::string name = callName("doUpdate", update.where);
    ProgressWatch progress;
    std::optional<Returned> returned;
    std::atomic<bool> isPolling{false};
    std::atomic<bool> isOver{false};

    const auto poll = [&] {
        const CallingThread self(1);
        const std::string pollName = "getUpdateProgress during doUpdate";
        GuardedBuffer out("the progress", sizeof(unsigned int));
        const Stopwatch whole;
        const ProcessState before = ProcessState::now();
        for (int look = 0; !isOver; realSleep(kPollInterval)) {
            isPolling = true;
            if (box_.phase != BlackBox::kRunning) {
                continue;
            }
            if (look++ % kLooksForState == 0) {
                complainOfMoment(name, before);
            }
            out.fill(GuardedBuffer::kPoison);
            int result = 0;
            const double begin = whole.read().count();
            try {
                const CallMark mark(pollName.c_str(), updateLimit(job_) + kQuestionLimit);
                result = getUpdateProgress_(out.as<unsigned int>());
            } catch (...) {
                found(FindingId::Exception, pollName + " threw");
                return;
            }
            const double taken = whole.read().count() - begin;
            progress.slowest = std::max(progress.slowest, taken);
            if (result != 0) {
                ++progress.failures;
            } else if (box_.phase == BlackBox::kRunning && !out.isAll(GuardedBuffer::kPoison)) {
                progress.add(*out.as<unsigned int>());
            }
        }
    };
    std::thread poller;
    if (update.pollProgress && !isSuspect("getUpdateProgress during doUpdate")) {
        poller = std::thread(poll);
        while (!isPolling) {
            realSleep(1ms);
        }
    }
    returned = callUpdate(name, update);
    isOver = true;
    if (poller.joinable()) {
        poller.join();
    }
    if (!returned) {
        return std::nullopt;
    }
    tell("result", returned->result);
    tell("error", returned->error);
    tell("duration", returned->taken.count());
    if (update.pollProgress) {
        tell("progress", progress.toJson());
    }
    return returned;
}
} // namespace fwmod::examiner
