// doUpdate and doUpdate_decryption, on a thread of their own, and what is called meanwhile.
#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "common/process/guarded-buffer.h"
#include "tools/fwmod/check/examiner/worker/calling.h"
#include "tools/fwmod/check/examiner/worker/worker.h"

namespace fwmod::examiner
{

using common::GuardedBuffer;
using common::ProcessState;

using namespace std::chrono_literals;

namespace
{
constexpr std::chrono::nanoseconds kPollInterval = 10ms;
constexpr int kLooksForState = 8; // a look at the progress takes less

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

struct Worker::Polling {
    ProgressWatch progress;
    std::atomic<bool> isRunning{false};
    std::atomic<bool> isOver{false};
};

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
    (fault.isFlush    ? box_.failingFlush
     : fault.isUntold ? box_.spoiltWrite
                      : box_.failingWrite) = fault.number;
    const std::optional<Returned> returned = callUpdate(callName("doUpdate", update.where), update);
    box_.failingFlush = 0;
    box_.failingWrite = 0;
    box_.spoiltWrite = 0;
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

std::optional<Returned> Worker::updateUnverified(const Update& update)
{
    box_.failedReads = 0;
    box_.failingReads = BlackBox::kOfWritten;
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

// And looks at the progress from then on.
void Worker::giveNotice(unsigned int write, const std::atomic<bool>& isOver)
{
    const std::string name = "allUpdateDone during doUpdate";
    while (!isOver && (box_.phase != BlackBox::kRunning || box_.writes < write)) {
        realSleep(100us);
    }
    if (isOver || isSuspect(name)) {
        return;
    }
    const std::optional<unsigned int> before = progressDuringUpdate();
    {
        const CallMark mark(name.c_str(), updateLimit(job_) + kQuestionLimit);
        allUpdateDone_();
    }
    const std::optional<unsigned int> after = progressDuringUpdate();
    if (before && *before >= 100) {
        return; // of before the update, or at its end
    }
    if (before && after && *after == 100) {
        tell("noticeJump", static_cast<unsigned int>(box_.writes));
    }
    requireProgressKept(before, name);
    for (std::optional<unsigned int> highest = after; highest && !isOver; realSleep(200us)) {
        requireProgressKept(highest, name);
        highest = std::max(highest, progressDuringUpdate());
    }
}

std::optional<Returned> Worker::updateUnderNotice(unsigned int write, const Update& update)
{
    std::atomic<bool> isOver{false};
    std::thread notice([&] {
        const CallingThread self(1);
        try {
            giveNotice(write, isOver);
        } catch (...) {
            found(FindingId::Exception, "allUpdateDone during doUpdate threw");
        }
    });
    const std::optional<Returned> returned = callUpdate(callName("doUpdate", update.where), update);
    isOver = true;
    notice.join();
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

// Of a whole update, on another thread.
void Worker::pollProgress(const std::string& name, Polling& polling)
{
    const CallingThread self(1);
    const std::string pollName = "getUpdateProgress during doUpdate";
    GuardedBuffer out("the progress", sizeof(unsigned int));
    const Stopwatch whole;
    const ProcessState before = ProcessState::now();
    for (int look = 0; !polling.isOver; realSleep(kPollInterval)) {
        polling.isRunning = true;
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
        polling.progress.slowest = std::max(polling.progress.slowest, taken);
        if (result != 0) {
            ++polling.progress.failures;
        } else if (box_.phase == BlackBox::kRunning && !out.isAll(GuardedBuffer::kPoison)) {
            polling.progress.add(*out.as<unsigned int>());
        }
    }
}

std::optional<Returned> Worker::update(const Update& update)
{
    const std::string name = callName("doUpdate", update.where);
    Polling polling;
    std::thread poller;
    if (update.pollProgress && !isSuspect("getUpdateProgress during doUpdate")) {
        poller = std::thread([&] { pollProgress(name, polling); });
        while (!polling.isRunning) {
            realSleep(1ms);
        }
    }
    const std::optional<Returned> returned = callUpdate(name, update);
    polling.isOver = true;
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
        tell("progress", polling.progress.toJson());
    }
    return returned;
}
} // namespace fwmod::examiner
