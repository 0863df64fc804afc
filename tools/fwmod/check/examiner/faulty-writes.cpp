#include "tools/fwmod/check/examiner/faulty-writes.h"

#include <algorithm>
#include <fstream>

#include "common/process/process-state.h"
#include "tools/fwmod/check/examiner/hardware-copy.h"
#include "tools/fwmod/check/examiner/held-image.h"
#include "tools/fwmod/check/examiner/updates.h"
#include "tools/fwmod/check/examiner/worker.h"

namespace fwmod::examiner
{

// ---- Order ----

namespace
{
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
    if (last != writes.all.rend() && needsFlush(*last) && !last->isOfFirmware()) {
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

unsigned int writeAtPart(const Writes& writes, double part)
{
    std::uint64_t before = 0;
    for (std::size_t index = 0; index < writes.all.size(); ++index) {
        const SeenWrite& write = writes.all[index];
        before += write.bytes;
        if (write.isOfFirmware() && static_cast<double>(before) >= part * static_cast<double>(writes.bytes)) {
            return static_cast<unsigned int>(index + 1);
        }
    }
    return 0;
}

std::set<unsigned int> keyWrites(const Writes& writes)
{
    constexpr std::size_t kMostNames = 3;
    std::set<unsigned int> chosen;
    std::size_t names = 0;
    unsigned int last = 0;
    for (std::size_t index = 0; index < writes.all.size(); ++index) {
        const auto number = static_cast<unsigned int>(index + 1);
        const bool isName = writes.all[index].isNaming();
        if ((isName && names++ < kMostNames) || (writes.all[index].bytes > 0 && last == 0)) {
            chosen.insert(number);
        }
        last = writes.all[index].bytes > 0 ? number : last;
    }
    if (last != 0) {
        chosen.insert(last);
    }
    return chosen;
}

std::vector<SeenWrite> unflushedContent(const Writes& writes)
{
    std::vector<SeenWrite> open;
    for (const SeenWrite& write : writes.all) {
        if (write.isFlush()) {
            const bool isOfAll = write.path.empty() || write.call == "syncfs";
            open.erase(
                std::remove_if(open.begin(), open.end(),
                               [&](const SeenWrite& each) { return isOfAll || each.path == write.path; }),
                open.end());
        } else if (write.isNaming()) {
            open.clear(); // by another name now; judged above
        } else if (needsFlush(write) && write.bytes > 0 && write.position) {
            open.push_back(write);
        }
    }
    return open;
}

void lose(const SeenWrite& write, const Machine& machine)
{
    std::string old(write.bytes, '\0');
    std::ifstream before(write.path, std::ios::binary); // the set's own, from which machines are made
    before.seekg(static_cast<std::streamoff>(*write.position));
    before.read(old.data(), static_cast<std::streamsize>(old.size()));
    std::fstream now(machine.file(write.path), std::ios::binary | std::ios::in | std::ios::out);
    now.seekp(static_cast<std::streamoff>(*write.position));
    now.write(old.data(), static_cast<std::streamsize>(old.size()));
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
    tellVersion(worker, "after a fault of the hardware");
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

// Whether what was written wrong is there, and what should have been there is not.
bool isWrong(const Session& session, const Machine& machine, const Job& job)
{
    if (!job.holders.empty()) {
        return !isHeld(machine, imageOf(job), job.holders);
    }
    return session.spoilt && isAnywhere(machine, session.spoilt->wrong) &&
           !isAnywhere(machine, session.spoilt->right);
}

void spoilWrite(Supervisor& supervisor, unsigned int write, Report& report)
{
    const Job& job = supervisor.job();
    Machine machine;
    const Session session = runWith(supervisor, machine, updateAlone, {true, 0, 0, write}, report);
    if (!isReached(session, write) || !isWrong(session, machine, job)) {
        return;
    }
    const std::string what = "one byte of " + nameOf(session, write) + " became another one";
    if (isSuccess(session)) {
        report.add({FindingId::NotReadBack, "doUpdate returned 0, although " + what});
    } else if (session.told.isMember("result") && job.versionBefore != job.versionAfter &&
               session.told["version"].asString() == job.versionAfter) {
        report.add(
            {FindingId::OldFirmwareGone, "doUpdate failed, because " + what +
                                             ", and getActiveVersion tells the new version all the same"});
    }
}

// ---- One at a time, in one process ----

std::string resultOf(unsigned int update)
{
    return "result " + std::to_string(update);
}

std::vector<Worker::Fault> faultsOf(const Job& job)
{
    std::vector<Worker::Fault> faults;
    for (const unsigned int write : job.keyWrites) {
        faults.push_back({false, write});
    }
    for (const unsigned int flush : job.flushes) {
        faults.push_back({true, flush});
    }
    return faults;
}

// What came of an update with a fault, as it can be told in the process.
void tellFailed(Worker& worker, unsigned int update, const Returned& returned)
{
    const Job& job = worker.job();
    Json::Value told;
    told["result"] = returned.result;
    told["error"] = returned.error;
    const std::optional<std::string> version = worker.activeVersion("after a write that failed");
    told["version"] = version.value_or("");
    if (job.version) {
        const auto verdict = worker.checkVersion(*job.version, "after a write that failed");
        told["awaited"] = verdict && verdict->result == 0 && verdict->verdict > 0;
    }
    told["held"] = job.holders.empty() || isHeld("/", imageOf(job), job.holders);
    worker.tell(resultOf(update), told);
}

void updateWithFaults(Worker& worker)
{
    if (!worker.load()) {
        return;
    }
    const HardwareCopy original;
    const Job& job = worker.job();
    unsigned int update = 0;
    std::size_t first = 0;
    for (const Worker::Fault& fault : faultsOf(job)) {
        worker.setContext(job.caller, "");
        const auto returned = worker.updateWithFault(
            fault, {job.image, job.checksum, false,
                    fault.isFlush ? "with a flush that fails" : "with a write that fails"});
        if (!returned) {
            return;
        }
        tellFailed(worker, ++update, *returned);
        original.putBack();
        if (update == 1) {
            first = common::openDescriptors(); // with what is kept open for good
        }
    }
    const std::size_t last = common::openDescriptors();
    if (last > first + 1) { // another path may keep one open for good as well
        worker.found(FindingId::DescriptorsLeft,
                     "doUpdate, in which a write or a flush fails: " + std::to_string(last - first) +
                         " more after " + std::to_string(update - 1) + " calls");
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

void judgeFault(const SeenWrite& write, const Json::Value& told, const Session& session, const Job& job,
                Report& report)
{
    const std::string what = write.call + " to " + write.path;
    const std::string version = told["version"].asString();
    if (told["result"].asInt() == 0) {
        const bool isLost = write.isFlush() ? !isMadeUpFor(write, session.writes)
                                            : version != job.versionAfter || !told["held"].asBool();
        if (isLost) {
            report.add({FindingId::ImageNotWritten, "doUpdate returned 0, although " + what + " had failed"});
        }
        return;
    }
    if (told["error"].asInt() == 0) {
        report.add({FindingId::SilentFailure, "doUpdate, in which " + what + " failed, left errno 0"});
    }
    if (version != job.versionBefore && version != job.versionAfter && !told["awaited"].asBool()) {
        report.add({FindingId::OldFirmwareGone, "after " + what + " had failed, the version is " +
                                                    (version.empty() ? "not told" : quote(version)) +
                                                    " instead of " + quote(job.versionBefore)});
    }
}

// Each is a write or a flush of its own: of the file, of the mark that makes it the active one, of its
// directory.
void failOneByOne(Supervisor& supervisor, Report& report)
{
    Machine machine;
    const Session session = runWith(supervisor, machine, updateWithFaults, {true}, report);
    for (const SeenWrite& write : session.writes.all) {
        const Json::Value& told = session.told[resultOf(write.update)];
        if (write.hasFailed && told.isObject()) {
            judgeFault(write, told, session, supervisor.job(), report);
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
        spoilWrite(supervisor, job.middleWrite, report);
    }
    if (job.lateWrite != 0 && !report.has(FindingId::NotReadBack)) {
        spoilWrite(supervisor, job.lateWrite, report);
    }
    if (!job.flushes.empty() || !job.keyWrites.empty()) {
        failOneByOne(supervisor, report);
    }
}
} // namespace fwmod::examiner
