#include "tools/fwmod/check/examiner/supervisor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "common/files/unique-fd.h"
#include "common/json-text.h"
#include "common/process/process-state.h"
#include "tools/fwmod/check/examiner/black-box.h"
#include "tools/fwmod/check/examiner/machine/hardware-copy.h"
#include "tools/fwmod/check/examiner/mapped-hardware.h"
#include "tools/fwmod/check/examiner/worker/worker.h"
#include "tools/fwmod/check/protocol/report.h"

namespace fwmod::examiner
{

namespace
{
int check(int result, const char* what)
{
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

// Its ticks are the PC's, whatever the set's clock does.
common::UniqueFd makeTicks()
{
    common::UniqueFd ticks(check(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC), "cannot make a timer"));
    const itimerspec every = {{0, 20'000'000}, {0, 20'000'000}};
    check(timerfd_settime(ticks.get(), 0, &every, nullptr), "cannot start a timer");
    return ticks;
}

// Out of the way of a library that opens or closes descriptors by their usual numbers.
int moveAway(int descriptor)
{
    constexpr int kFirst = 200;
    const int moved = check(fcntl(descriptor, F_DUPFD_CLOEXEC, kFirst), "cannot move a descriptor");
    close(descriptor);
    return moved;
}

void redirect(int output)
{
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(null, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    close(null);
}

// The end of what the library has said: the C library's and the sanitizers' reasons are there.
std::string lastLine(int output)
{
    std::string text(4096, '\0');
    const off_t size = lseek(output, 0, SEEK_END);
    const off_t begin = std::max<off_t>(size - static_cast<off_t>(text.size()), 0);
    const ssize_t length = pread(output, text.data(), text.size(), begin);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    const std::size_t line = text.rfind('\n');
    return line == std::string::npos ? text : text.substr(line + 1);
}

// abort() is also how the C library ends a process whose memory it finds damaged.
bool isDamageReport(const std::string& said)
{
    constexpr const char* kBeginnings[] = {"free()",    "malloc",         "realloc()", "double free",
                                           "corrupted", "munmap_chunk()", "*** "};
    for (const char* beginning : kBeginnings) {
        if (said.compare(0, std::strlen(beginning), beginning) == 0) {
            return true;
        }
    }
    return said.find("terminate called") != std::string::npos;
}

constexpr const char* kKilled =
    "a process of the examination was ended by SIGKILL outside of any call: by the system, if memory is "
    "short, or by somebody; run the check again";

// Then it is nothing that the library's calls have done. What ends a process within a call may be their
// doing.
bool wasKilledOutsideOfCalls(const BlackBox& box)
{
    const bool isCalling = std::any_of(std::begin(box.calls), std::end(box.calls),
                                       [](const BlackBox::Call& call) { return call.deadline != 0; });
    return !isCalling && !box.finished && WIFSIGNALED(box.status) && WTERMSIG(box.status) == SIGKILL;
}

// One session while it runs.
class Run
{
public:
    Run(const Job& job, const std::set<std::string>& suspects, const Watch& watch)
        : watch_(watch), box_(makeBlackBox()), output_(check(memfd_create("said", MFD_CLOEXEC), "no memory")),
          ticks_(makeTicks())
    {
        std::array<int, 2> ends{};
        check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), "cannot make a channel");
        own_ = common::UniqueFd(ends[0]);
        workers_ = common::UniqueFd(ends[1]);
        job_ = &job;
        suspects_ = &suspects;
    }
    ~Run() { munmap(&box_, sizeof box_); }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    Session conduct(Machine& machine, const Script& script);

    const BlackBox& box() const { return box_; }
    double delay() const { return std::chrono::duration<double>(delay_.soFar()).count(); }
    std::string said() const { return lastLine(output_.get()); }
    const std::optional<std::string>& overrun() const { return overrun_; }

private:
    void work(const Script& script);
    void step();
    void receive();
    void watchWrite();
    void watchRead(const vset::HardwareWrite& read);
    bool isToFail(const SeenWrite& write);
    void lookAtMapped(const vset::HardwareWrite& write);
    void checkLimits();

    Watch watch_;
    common::ProcessorDelay delay_; // of the watching itself, during which a write waits
    BlackBox& box_;
    common::UniqueFd output_;
    common::UniqueFd ticks_;
    common::UniqueFd own_;
    common::UniqueFd workers_;
    const Job* job_;
    const std::set<std::string>* suspects_;

    Session session_;
    const Machine* machine_ = nullptr;
    pid_t keeper_ = -1;
    bool isOpen_ = true; // the worker's end of the channel
    std::unique_ptr<vset::WriteWatch> writes_;
    bool isWatchOver_ = false;
    std::optional<std::string> overrun_; // the call that did not return
};

// In the worker process.
void Run::work(const Script& script)
{
    redirect(output_.get());
    const int channel = moveAway(workers_.get());
    for (const int inherited : {own_.get(), ticks_.get(), output_.get()}) {
        close(inherited);
    }
    setenv("LC_ALL", "C.UTF-8", 1); // for who chooses the environment's locale; the daemon keeps "C"
    if (watch_.isOn) {
        vset::submitToWatch(channel, watch_.holdsReads ? vset::Reads::kHeld : vset::Reads::kPass);
    }
    openBlackBox(box_);
    const CallingThread self(0);
    Worker worker(*job_, *suspects_, channel, box_);
    try {
        script(worker);
        box_.finished = true;
    } catch (const std::exception& error) {
        worker.tell("broken", error.what());
    }
    _exit(0); // as the daemon ends: no exit handlers, no destructors
}

Session Run::conduct(Machine& machine, const Script& script)
{
    machine_ = &machine;
    keeper_ = machine.boot([&] { work(script); }, &box_.status);
    workers_ = common::UniqueFd();
    if (watch_.isOn) {
        writes_ = std::make_unique<vset::WriteWatch>(own_.get());
    }
    while (isOpen_) {
        step();
    }
    int status = 0;
    check(waitpid(keeper_, &status, 0), "cannot wait for an experiment");
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
        throw std::runtime_error("an experiment could not be set up");
    }
    const bool isEndedHere = session_.isCut || overrun_;
    if (!isEndedHere && (WIFSIGNALED(status) || wasKilledOutsideOfCalls(box_))) {
        throw std::runtime_error(kKilled);
    }
    if (session_.told.isMember("broken")) {
        throw std::runtime_error(session_.told["broken"].asString());
    }
    session_.isFinished = box_.finished;
    return session_;
}

void Run::step()
{
    const int watched = writes_ && !isWatchOver_ ? writes_->descriptor() : -1;
    std::array<pollfd, 3> waiting = {
        {{own_.get(), POLLIN, 0}, {ticks_.get(), POLLIN, 0}, {watched, POLLIN, 0}}};
    if (poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR) {
        check(-1, "cannot wait for the library");
    }
    if ((waiting[2].revents & POLLIN) != 0) {
        watchWrite();
    } else if (waiting[2].revents != 0) {
        isWatchOver_ = true;
    }
    if ((waiting[1].revents & POLLIN) != 0) {
        checkLimits();
    }
    if (waiting[0].revents != 0) {
        receive();
    }
}

void Run::receive()
{
    std::array<char, 65536> packet; // not cleared each time
    const ssize_t length = recv(own_.get(), packet.data(), packet.size(), 0);
    if (length <= 0) {
        isOpen_ = false;
        return;
    }
    const std::string text(packet.data(), static_cast<std::size_t>(length));
    if (const std::optional<Finding> finding = readFinding(text)) {
        session_.findings.push_back(*finding);
        return;
    }
    const std::optional<Json::Value> message = common::parseJsonObject(text);
    if (message && (*message)["key"].isString()) { // else from the library, which is not to know this channel
        session_.told[(*message)["key"].asString()] = (*message)["value"];
    }
}

void Run::watchWrite()
{
    const std::optional<vset::HardwareWrite> write = writes_->next();
    if (!write) {
        return;
    }
    if (write->isRead) {
        return watchRead(*write);
    }
    const int phase = box_.phase;
    if (phase == BlackBox::kBefore && entryPointOf(box_.calls[0].name) == "setContext" &&
        box_.calls[0].deadline != 0) {
        session_.findings.push_back(
            {FindingId::ContextTouchesHardware,
             std::string(box_.calls[0].name) + " wrote " + std::to_string(write->bytes) + " bytes"});
    }
    const SeenWrite seen = {write->call, write->path, write->bytes,    write->isLasting,
                            box_.update, false,       write->position, write->source};
    const bool isToCut =
        session_.writes.during + 1 == watch_.cutAt || (watch_.cutsAtContent && !seen.isFlush());
    if (phase == BlackBox::kRunning && isToCut) {
        session_.isCut = true;
        kill(keeper_, SIGKILL); // the write still waits, and ends with its process
        return;
    }
    if (phase == BlackBox::kRunning) {
        ++session_.writes.during;
        session_.writes.bytes += write->bytes;
        session_.writes.all.push_back(seen);
        ++box_.writes;
        lookAtMapped(*write);
        if (isToFail(session_.writes.all.back())) {
            session_.writes.all.back().hasFailed = true;
            return writes_->refuse(*write, EIO);
        }
        if (session_.writes.during == watch_.failAt) {
            return writes_->refuse(*write, EIO);
        }
        const bool isToSpoil = session_.writes.during == watch_.spoilAt ||
                               (box_.spoiltWrite != 0 && box_.writes == box_.spoiltWrite);
        if (isToSpoil && (session_.spoilt = writes_->spoil(*write))) {
            return;
        }
    } else if (phase == BlackBox::kSettling) {
        ++session_.writes.late;
    }
    writes_->allow(*write);
}

void Run::watchRead(const vset::HardwareWrite& read)
{
    const int failing = box_.failingReads;
    const std::string& place = failing == BlackBox::kOfImage ? job_->imageDirectory + "/" : kHardware;
    const bool isTooEarly = failing == BlackBox::kOfWritten && box_.writes == 0;
    if (failing != BlackBox::kNone && !isTooEarly && read.path.rfind(place, 0) == 0) {
        ++box_.failedReads;
        return writes_->refuse(read, EIO);
    }
    writes_->allow(read);
}

void Run::lookAtMapped(const vset::HardwareWrite& write)
{
    const SeenWrite& seen = session_.writes.all.back();
    if (!watch_.looksAtMapped || !(seen.isFlush() || seen.call == vset::kMsyncWithoutWaiting)) {
        return;
    }
    if (std::optional<MappedFlush> flush = mappedFlushOf(write, seen, *machine_)) {
        flush->write = session_.writes.during;
        session_.mappedFlushes.push_back(*std::move(flush));
    }
}

bool Run::isToFail(const SeenWrite& write)
{
    const bool isFlush = write.isFallible() && box_.failingFlush != 0 && --box_.failingFlush == 0;
    return isFlush || (box_.failingWrite != 0 && box_.writes == box_.failingWrite);
}

void Run::checkLimits()
{
    std::uint64_t ticks = 0;
    [[maybe_unused]] const ssize_t length = read(ticks_.get(), &ticks, sizeof ticks);
    const std::int64_t now = realNow();
    for (const BlackBox::Call& call : box_.calls) {
        const std::int64_t deadline = call.deadline;
        if (deadline == 0 || now < deadline || overrun_) {
            continue;
        }
        overrun_ = call.name;
        kill(keeper_, SIGKILL);
    }
}

void explainDeath(Session& session, const BlackBox& box, const std::string& said)
{
    const std::string call = session.lastCall.empty() ? "the library, outside of a call" : session.lastCall;
    const std::string quoted = said.empty() ? "" : "; its last words: " + said;
    if (box.closedBy[0] != '\0') {
        session.lastCall = box.closedBy;
        session.death = Finding{FindingId::ForeignDescriptorsClosed,
                                session.lastCall + " closed one that was open before it"};
        return;
    }
    if (box.limits.areForGood) {
        session.death = Finding{FindingId::LimitChanged, call + ": " + box.limits.words};
        return;
    }
    if (box.threadEnded) {
        session.death =
            Finding{FindingId::ProcessEnded, call + " ended the thread that called it (pthread_exit)"};
        return;
    }
    if (!WIFSIGNALED(box.status)) {
        session.death = Finding{FindingId::ProcessEnded, call + " ended the process with status " +
                                                             std::to_string(WEXITSTATUS(box.status))};
        return;
    }
    const int signal = WTERMSIG(box.status);
    session.wasCrash = true;
    session.wasGuardHit = box.guardHit;
    const std::string words = box.lastWords[0] != '\0' ? std::string(": ") + box.lastWords : "";
    if (box.staleHit) {
        session.death = Finding{FindingId::StalePointer, call + words};
    } else if (box.guardHit) {
        session.death = Finding{FindingId::OutsideOfBuffer, call + words};
    } else if (signal == SIGABRT && !box.terminated && !isDamageReport(said)) {
        session.death = Finding{FindingId::ProcessEnded, call + " called abort" + quoted};
    } else {
        session.death =
            Finding{FindingId::Crash, call + " was ended by " + common::signalName(signal) + words + quoted};
    }
}
} // namespace

std::string SeenWrite::inWords() const
{
    return path.empty() ? call : call + " to " + path;
}

bool SeenWrite::isFlush() const
{
    constexpr const char* kFlushes[] = {"fsync", "fdatasync", "syncfs", "sync", "msync"};
    return std::find(std::begin(kFlushes), std::end(kFlushes), call) != std::end(kFlushes);
}

bool SeenWrite::isFallible() const
{
    return isFlush() && call != "sync"; // which has no result
}

bool SeenWrite::isNaming() const
{
    return call.rfind("rename", 0) == 0 || call.rfind("link", 0) == 0;
}

void Supervisor::avoid(const Session& session)
{
    suspects_.insert(session.wasHang ? entryPointOf(session.lastCall) : session.lastCall);
}

Session Supervisor::run(Machine& machine, const Script& script, const Watch& watch)
{
    Run run(job_, suspects_, watch);
    Session session = run.conduct(machine, script);
    calls_ += run.box().count;
    session.watchDelay = run.delay();
    if (session.isFinished || session.isCut) {
        return session;
    }
    if (run.overrun()) {
        session.lastCall = *run.overrun();
        session.wasHang = true;
        session.death =
            Finding{FindingId::Hang, session.lastCall + " had not returned when its time was over"};
    } else {
        session.lastCall =
            run.box().calls[0].deadline != 0 ? run.box().calls[0].name : run.box().calls[1].name;
        explainDeath(session, run.box(), run.said());
    }
    return session;
}
} // namespace fwmod::examiner
