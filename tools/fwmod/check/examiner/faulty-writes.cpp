#include "tools/fwmod/check/examiner/faulty-writes.h"

#include <algorithm>

#include "tools/fwmod/check/examiner/hardware-copy.h"
#include "tools/fwmod/check/examiner/held-image.h"
#include "tools/fwmod/check/examiner/updates.h"
#include "tools/fwmod/check/examiner/worker.h"

namespace fwmod::examiner
{

// ---- Order ----

namespace
{
constexpr std::uint64_t kContent = 256; // bytes: less is a note or a selector

bool needsFlush(const SeenWrite& write)
{
    return write.isContent() && !write.isLasting;
}

// A name or a selector that comes last is what counts; a spare copy may follow it, and need not be flushed.
void judgeLastFlush(const Writes& writes, Report& report)
{
    const auto last = std::find_if(writes.all.rbegin(), writes.all.rend(), [](const SeenWrite& write) {
        return write.isFlush() || write.isContent();
    });
    if (last != writes.all.rend() && needsFlush(*last) && last->bytes < kContent) {
        report.add({FindingId::LastNotFlushed,
                    "no flush came after the last write (" + last->call + " to " + last->path + ")"});
    }
}
} // namespace

void judgeFlushes(const Writes& writes, Report& report)
{
    bool isOpen = false; // content that no flush has followed yet
    bool isFlushed = false;
    for (const SeenWrite& write : writes.all) {
        if (write.isFlush()) {
            isOpen = false;
            isFlushed = true;
        } else if (write.isNaming() && isOpen) {
            report.add({FindingId::NotFlushed, write.path + " got its name (" + write.call +
                                                   ") before what was written into it was flushed"});
            return;
        } else if (needsFlush(write)) {
            isOpen = isOpen || write.bytes > 0;
        }
    }
    if (!isFlushed && std::any_of(writes.all.begin(), writes.all.end(), needsFlush)) {
        report.add({FindingId::NotFlushed,
                    "there was no flush among " + std::to_string(writes.all.size()) + " writes"});
        return;
    }
    judgeLastFlush(writes, report);
}

unsigned int middleWrite(const Writes& writes)
{
    std::uint64_t before = 0;
    for (std::size_t index = 0; index < writes.all.size(); ++index) {
        const SeenWrite& write = writes.all[index];
        before += write.bytes;
        if (write.bytes >= kContent && before * 2 >= writes.bytes) {
            return static_cast<unsigned int>(index + 1);
        }
    }
    return 0;
}

std::set<unsigned int> flushesToFail(const Writes& writes)
{
    constexpr unsigned int kMost = 3; // at the beginning, and as many at the end
    const auto count = static_cast<unsigned int>(std::count_if(
        writes.all.begin(), writes.all.end(), [](const SeenWrite& write) { return write.isFallible(); }));
    std::set<unsigned int> chosen;
    for (unsigned int number = 1; number <= count; ++number) {
        if (number <= kMost || number + kMost > count) {
            chosen.insert(number);
        }
    }
    return chosen;
}

// ---- Faults ----

namespace
{
void updateAndAgain(Worker& worker)
{
    if (!worker.load()) {
        return;
    }
    const Job& job = worker.job();
    worker.setContext(job.caller, "");
    const auto first = worker.update({job.image, job.checksum, false, "with a write that fails"});
    if (!first || first->result == 0) {
        return;
    }
    worker.tell("failure", first->error);
    tellVersion(worker, "after a write that failed");
    const auto second = worker.update({job.image, job.checksum, false, "after one with a write that failed"});
    if (second) {
        worker.tell("again", second->result);
    }
}

void updateAlone(Worker& worker)
{
    if (!worker.load()) {
        return;
    }
    worker.setContext(worker.job().caller, "");
    worker.update({worker.job().image, worker.job().checksum, false, "with a fault of the hardware"});
}

// Whether doUpdate says that it worked.
bool isSuccess(const Session& session)
{
    return session.told.isMember("result") && session.told["result"].asInt() == 0;
}

Session runWith(Supervisor& supervisor, Machine& machine, const Script& script, const Watch& watch,
                Report& report)
{
    Session session = supervisor.run(machine, script, watch);
    for (const Finding& finding : session.findings) {
        if (finding.id != FindingId::QuestionFailed) {
            report.add(finding);
        }
    }
    if (session.death) {
        report.add(*session.death);
    }
    return session;
}

std::string nameOf(const Session& session, unsigned int write)
{
    const SeenWrite& seen = session.writes.all[write - 1];
    return seen.call + " to " + seen.path;
}

// The fault came where it should.
bool isReached(const Session& session, unsigned int write)
{
    return !session.death && session.writes.all.size() >= write;
}

void failWrite(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    Machine machine;
    const Session session = runWith(supervisor, machine, updateAndAgain, {true, 0, job.middleWrite}, report);
    if (!isReached(session, job.middleWrite)) {
        return;
    }
    const std::string what = nameOf(session, job.middleWrite);
    const Json::Value& told = session.told;
    if (!told.isMember("failure")) {
        if (isSuccess(session) && !isHeld(machine, imageOf(job), job.holders)) {
            report.add({FindingId::ImageNotWritten, "doUpdate returned 0, although " + what + " had failed"});
        }
        return;
    }
    if (told["failure"].asInt() == 0) {
        report.add({FindingId::SilentFailure, "doUpdate, in which " + what + " failed, left errno 0"});
    }
    const std::string version = told["version"].asString();
    const bool isAwaited = told.isMember("verdict") && told["verdict"].asInt() > 0;
    if (version != job.versionBefore && version != job.versionAfter && !isAwaited) {
        report.add({FindingId::OldFirmwareGone, "after " + what + " had failed, the version is " +
                                                    (version.empty() ? "not told" : quote(version)) +
                                                    " instead of " + quote(job.versionBefore)});
    } else if (told.isMember("again") && told["again"].asInt() != 0) {
        report.add({FindingId::NoUpdateAfterRefusal, "doUpdate after one in which " + what + " failed" +
                                                         " returned " + told["again"].asString()});
    }
}

void spoilWrite(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    Machine machine;
    const Session session = runWith(supervisor, machine, updateAlone, {true, 0, 0, job.middleWrite}, report);
    if (isReached(session, job.middleWrite) && isSuccess(session) &&
        !isHeld(machine, imageOf(job), job.holders)) {
        report.add({FindingId::NotReadBack, "doUpdate returned 0, although one byte of " +
                                                nameOf(session, job.middleWrite) + " became another one"});
    }
}

std::string resultOf(unsigned int update)
{
    return "result " + std::to_string(update);
}

void updateWithFailingFlushes(Worker& worker)
{
    if (!worker.load()) {
        return;
    }
    const HardwareCopy original;
    const Job& job = worker.job();
    unsigned int update = 0;
    for (const unsigned int flush : job.flushes) {
        worker.setContext(job.caller, "");
        const auto returned =
            worker.updateWithFailingFlush(flush, {job.image, job.checksum, false, "with a flush that fails"});
        if (!returned) {
            return;
        }
        worker.tell(resultOf(++update), returned->result);
        original.putBack();
    }
}

// A later one in the same update makes up for it.
bool isMadeUpFor(const SeenWrite& failed, const Writes& writes)
{
    bool isLater = false;
    return std::any_of(writes.all.begin(), writes.all.end(), [&](const SeenWrite& write) {
        isLater = isLater || &write == &failed;
        return isLater && &write != &failed && write.isFlush() && write.update == failed.update &&
               write.path == failed.path;
    });
}

// Each is a flush of its own: of the file, of the mark that makes it the active one, of its directory.
void failFlushes(Supervisor& supervisor, Report& report)
{
    Machine machine;
    const Session session = runWith(supervisor, machine, updateWithFailingFlushes, {true}, report);
    for (const SeenWrite& write : session.writes.all) {
        const Json::Value& result = session.told[resultOf(write.update)];
        if (write.hasFailed && result.isInt() && result.asInt() == 0 && !isMadeUpFor(write, session.writes)) {
            report.add({FindingId::ImageNotWritten,
                        "doUpdate returned 0, although " + write.call + " to " + write.path + " had failed"});
        }
    }
}
} // namespace

void updateFaultyHardware(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    if (!job.isRepeatable) {
        return;
    }
    if (!job.holders.empty() && job.middleWrite != 0) {
        failWrite(supervisor, report);
        spoilWrite(supervisor, report);
    }
    if (!job.flushes.empty()) {
        failFlushes(supervisor, report);
    }
}
} // namespace fwmod::examiner
