#include "tools/fwmod/check/examiner/faulty-writes.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <set>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "tools/fwmod/check/examiner/flush-order.h"
#include "tools/fwmod/check/examiner/machine/hardware-copy.h"
#include "tools/fwmod/check/examiner/machine/held-image.h"
#include "tools/fwmod/check/examiner/machine/plain-files.h"
#include "tools/fwmod/check/examiner/updates/updating.h"
#include "tools/fwmod/check/examiner/worker/worker.h"

namespace fwmod::examiner
{

// ---- Which writes are to fail ----

namespace
{
// Where this part of the content is written.
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

// The first and the last one of the content, and those that name a file.
std::set<unsigned int> keyWritesOf(const Writes& writes)
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

// What continues firmware, however short: its end.
bool isEndOf(const SeenWrite& body, const SeenWrite& write)
{
    return body.isOfFirmware() && write.bytes > 0 && body.path == write.path && body.position &&
           write.position == *body.position + body.bytes;
}

// By number, from 1, in their order.
std::vector<unsigned int> firmwareWrites(const Writes& writes)
{
    std::vector<unsigned int> numbers;
    for (std::size_t index = 0; index < writes.all.size(); ++index) {
        const SeenWrite& write = writes.all[index];
        const auto before = writes.all.begin() + static_cast<std::ptrdiff_t>(index);
        const bool isEnd = std::any_of(writes.all.begin(), before,
                                       [&](const SeenWrite& body) { return isEndOf(body, write); });
        if (write.isOfFirmware() || isEnd) {
            numbers.push_back(static_cast<unsigned int>(index + 1));
        }
    }
    return numbers;
}

// The first write of the content, one before its middle, and the last ones of a few files.
std::set<unsigned int> writesToSpoil(const Writes& writes)
{
    constexpr std::size_t kMostEnds = 4;
    const std::vector<unsigned int> all = firmwareWrites(writes);
    std::map<std::string, unsigned int> ends;
    for (const unsigned int number : all) {
        ends[writes.all[number - 1].path] = number;
    }
    std::set<unsigned int> chosen;
    for (const auto& [path, number] : ends) {
        if (chosen.size() < kMostEnds) {
            chosen.insert(number);
        }
    }
    if (!all.empty()) { // the middle and what is late are chosen by the bytes
        chosen.insert({all.front(), all[all.size() / 4], all.back()});
    }
    return chosen;
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
} // namespace

FaultPlaces faultPlacesOf(const Writes& writes)
{
    constexpr double kMiddle = 0.5;
    constexpr double kLate = 0.8; // behind a copy of the old firmware, before a spare one of the new
    const std::set<unsigned int> spoilt = writesToSpoil(writes);
    FaultPlaces places;
    places.middleWrite = writeAtPart(writes, kMiddle);
    places.lateWrite = writeAtPart(writes, kLate);
    places.endWrite = spoilt.empty() ? 0 : *spoilt.rbegin();
    places.keyWrites = keyWritesOf(writes);
    places.spoiltWrites = spoilt;
    places.hastyRemovals = hastyRemovals(writes);
    places.flushes = flushesToFail(writes);
    return places;
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
    if (session.wasHang) {
        supervisor.avoid(session); // it would take its time again and again
    }
    return session;
}

std::string nameOf(const Session& session, unsigned int write)
{
    return session.writes.all[write - 1].inWords();
}

// The fault came where it should.
bool isReached(const Session& session, unsigned int write)
{
    return !session.death && session.writes.all.size() >= write;
}

// `what` has made doUpdate fail.
void requireCause(const Json::Value& error, const std::string& what, Report& report)
{
    std::string why = whyNoCause(error.asInt());
    if (error.asInt() == EINVAL) { // of an image it would be one
        why = "left errno \"" + errorName(EINVAL) + "\", which is no cause of that";
    }
    if (!why.empty()) {
        report.add({FindingId::SilentFailure, "doUpdate, in which " + what + ", " + why});
    }
}

// An update that is disturbed, and the version that the next start tells.
struct Disturbed {
    Session session;
    std::string version; // "" when none is told
};

Disturbed updateDisturbed(Supervisor& supervisor, const Watch& disturbance)
{
    Machine machine;
    const auto script = [](Worker& worker) {
        worker.overlookManners();
        if (worker.load()) {
            worker.setContext(worker.job().caller, "");
            worker.update({worker.job().image, worker.job().checksum, false, ""});
        }
    };
    Disturbed disturbed{supervisor.run(machine, script, disturbance), ""};
    if (!disturbed.session.death) {
        disturbed.version = lookAgain(supervisor, machine).told["version"].asString();
    }
    return disturbed;
}

// Hardware with room for one firmware has none after a write that failed; but what a power cut at that very
// write leaves whole, the library itself has given up.
void judgeGivenUp(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    const unsigned int late = job.faults.lateWrite;
    const auto isWhole = [&](const std::string& version) {
        return version.empty() || version == job.versionBefore || version == job.versionAfter;
    };
    const Disturbed failed = updateDisturbed(supervisor, {true, 0, late});
    if (isWhole(failed.version) || !isReached(failed.session, late) || isSuccess(failed.session) ||
        updateDisturbed(supervisor, {true, late}).version != job.versionBefore) {
        return;
    }
    report.add({FindingId::OldFirmwareGone,
                "after " + nameOf(failed.session, late) + " had failed and a new start, the version is " +
                    quote(failed.version) + "; after a power cut there it is " + quote(job.versionBefore)});
}

void failWrite(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    Machine machine;
    const Session session =
        runWith(supervisor, machine, updateAndAgain, {true, 0, job.faults.middleWrite}, report);
    if (!isReached(session, job.faults.middleWrite)) {
        return;
    }
    const std::string what = nameOf(session, job.faults.middleWrite);
    const Json::Value& told = session.told;
    if (!told.isMember("failure")) {
        if (isSuccess(session) && job.holding.isKnown() && !isHeld(machine, imageOf(job), job.holding)) {
            report.add({FindingId::ImageNotWritten, "doUpdate returned 0, although " + what + " had failed"});
        }
        return;
    }
    requireCause(told["failure"], what + " failed", report);
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

// The hardware has the offered firmware by then, and another image is to come.
void updateAndFailNext(Worker& worker)
{
    const Job& job = worker.job();
    const bool hasOther = !job.otherImage.empty() && !job.isExternal;
    worker.overlookManners();
    if (!worker.load()) {
        return;
    }
    worker.setContext(job.caller, "");
    const auto first = worker.update({job.image, job.checksum, false, ""});
    if (!first || first->result != 0) {
        return;
    }
    worker.setContext(job.caller, "");
    const auto second = worker.updateWithFault({false, job.faults.middleWrite},
                                               {hasOther ? job.otherImage : job.image,
                                                hasOther ? job.otherChecksum : job.checksum, false,
                                                "behind another one, with a write that fails"});
    if (second) {
        worker.tell("second", second->result);
    }
    tellVersion(worker, "after an update and one with a write that failed");
}

// What the library knows of the hardware may be of before the first update.
void failNextUpdate(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    Machine machine;
    const Session session = runWith(supervisor, machine, updateAndFailNext, {true}, report);
    const auto failed = std::find_if(session.writes.all.begin(), session.writes.all.end(),
                                     [](const SeenWrite& write) { return write.hasFailed; });
    const std::string version = session.told["version"].asString();
    const bool isOlder = version.empty() || (version == job.versionBefore && version != job.versionAfter);
    if (failed != session.writes.all.end() && session.told["second"].asInt() != 0 && isOlder) {
        report.add({FindingId::OldFirmwareGone,
                    "in a second update of one process, in which " + failed->inWords() +
                        " failed, the firmware of the first one was lost: the version is " +
                        (version.empty() ? "not told" : quote(version)) + " instead of " +
                        quote(job.versionAfter)});
    }
}

// Whether what was written wrong is there, and what should have been there is not.
bool isWrong(const Session& session, const Machine& machine, const Job& job)
{
    if (job.holding.isKnown() && !isHeld(machine, imageOf(job), job.holding)) {
        return true;
    }
    return session.spoilt && isAnywhere(machine, session.spoilt->wrong) &&
           !isAnywhere(machine, session.spoilt->right);
}

// The image's own bytes; else it may be a copy of the old firmware, or bookkeeping.
bool isOfImage(const Session& session, const Job& job)
{
    return session.spoilt && imageOf(job).find(session.spoilt->right) != std::string::npos;
}

// What must be told of an update that has failed.
void judgeFailure(const Session& session, const std::string& what, bool isRight, const Job& job,
                  Report& report)
{
    requireCause(session.told["error"], what, report);
    const std::string version = session.told["version"].asString();
    const bool isAwaited = session.told.isMember("verdict") && session.told["verdict"].asInt() > 0;
    const bool isOld =
        version == job.versionBefore || (isAwaited && !version.empty()) || isVersionOfNothing(version);
    if (!isOld && !(isRight && version == job.versionAfter)) {
        report.add({FindingId::OldFirmwareGone, "doUpdate failed, because " + what + ", and the version is " +
                                                    (version.empty() ? "not told" : quote(version)) +
                                                    " instead of " + quote(job.versionBefore)});
    }
}

void spoilWrite(Supervisor& supervisor, unsigned int write, bool isImageOnly, Report& report)
{
    const Job& job = supervisor.job();
    Machine machine;
    const Session session = runWith(supervisor, machine, updateAlone, {true, 0, 0, write}, report);
    if (!isReached(session, write) || !session.told.isMember("result") ||
        (isImageOnly && !isOfImage(session, job))) {
        return;
    }
    const std::string what = "one byte of " + nameOf(session, write) + " became another one";
    const std::string version = session.told["version"].asString();
    const bool isLost = isSuccess(session) && !job.versionAfter.empty() && version != job.versionAfter;
    const bool isRight = !isLost && !isWrong(session, machine, job);
    if (!isSuccess(session)) {
        // The last write of a file may be the one that makes it the active one: only then can it be wrong.
        judgeFailure(session, what, isRight || isImageOnly, job, report);
    } else if (!isRight) {
        report.add({FindingId::NotReadBack, "doUpdate returned 0, although " + what});
    }
}

void spoilWrites(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    std::set<unsigned int> others = job.faults.spoiltWrites;
    for (const unsigned int write : {job.faults.middleWrite, job.faults.lateWrite}) {
        others.erase(write);
        const bool isLate = write == job.faults.lateWrite; // no copy of the old firmware any more
        if (write != 0 && (isLate || job.holding.isKnown()) && !report.has(FindingId::NotReadBack)) {
            spoilWrite(supervisor, write, !isLate && job.holding.files.empty(), report);
        }
    }
    for (const unsigned int write : others) {
        if (!report.has(FindingId::NotReadBack)) {
            spoilWrite(supervisor, write, true, report);
        }
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
    for (const unsigned int write : job.faults.keyWrites) {
        faults.push_back({false, write});
    }
    for (const unsigned int flush : job.faults.flushes) {
        faults.push_back({true, flush});
    }
    constexpr std::size_t kLeast = 3; // what is lost each time is to be seen
    while (!faults.empty() && faults.size() < kLeast) {
        faults.push_back(faults.back());
    }
    if (!faults.empty() && job.faults.middleWrite != 0) {
        faults.push_back({false, job.faults.middleWrite, true});
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
    told["held"] = !job.holding.isKnown() || isHeld("/", imageOf(job), job.holding);
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
    OpenFiles first;
    for (const Worker::Fault& fault : faultsOf(job)) {
        worker.setContext(job.caller, "");
        const auto returned = worker.updateWithFault(fault, {job.image, job.checksum, false,
                                                             fault.isFlush    ? "with a flush that fails"
                                                             : fault.isUntold ? "with a write that goes wrong"
                                                                              : "with a write that fails"});
        if (!returned) {
            return;
        }
        tellFailed(worker, ++update, *returned);
        original.putBack();
        if (update == 1) {
            first = OpenFiles::now(); // with what is kept open for good
        }
    }
    const std::string more = OpenFiles::now().moreThan(first);
    if (!more.empty()) {
        worker.found(FindingId::DescriptorsLeft,
                     "doUpdate, in which a write or a flush fails or goes wrong: " + more + " after " +
                         std::to_string(update - 1) + " calls");
    }
}

// After a flush that failed nobody knows what the hardware has, and the next one of the same does not tell
// it, either.
Writes withoutFlush(const Writes& writes, const SeenWrite& failed)
{
    Writes rest = writes;
    bool hasFailed = false;
    const auto isVain = [&](const SeenWrite& write) {
        hasFailed = hasFailed || write.hasFailed;
        return hasFailed && write.isFlush() && (write.path == failed.path || write.path.empty());
    };
    rest.all.erase(std::remove_if(rest.all.begin(), rest.all.end(), isVain), rest.all.end());
    return rest;
}

// Whether the new firmware is whole without all that this flush was to bring: a spare copy, or what was
// removed behind the update.
bool isSpareFlush(Supervisor& supervisor, const SeenWrite& failed, unsigned int flush)
{
    const Job& job = supervisor.job();
    Machine machine;
    if (failed.call == "msync" || !job.holding.isKnown()) {
        return false; // what was to be flushed cannot be told
    }
    const Session session = supervisor.run(
        machine,
        [flush](Worker& worker) {
            worker.overlookManners();
            if (worker.load()) {
                worker.setContext(worker.job().caller, "");
                worker.updateWithFault({true, flush}, {worker.job().image, worker.job().checksum, false, ""});
            }
        },
        {true});
    const Writes writes = withoutFlush(session.writes, failed);
    if (session.death || writes.all.size() == session.writes.all.size()) {
        return false;
    }
    const Machine rest;
    takeHardware(machine, rest);
    for (const SeenWrite& write : unflushedContent(writes)) {
        lose(write, rest);
    }
    Report lost;
    judgeEnd(supervisor, machine, writes, job.versionAfter, "", lost);
    return lost.findings.empty() && isHeld(rest, imageOf(job), job.holding);
}

// `flush`: its number among those, from 1; 0 for a write.
void judgeFault(Supervisor& supervisor, const SeenWrite& write, unsigned int flush, const Json::Value& told,
                Report& report)
{
    const Job& job = supervisor.job();
    const std::string what = write.inWords();
    const std::string version = told["version"].asString();
    if (told["result"].asInt() == 0) {
        const bool isLost = version != job.versionAfter || !told["held"].asBool();
        if (isLost || (write.isFlush() && !isSpareFlush(supervisor, write, flush))) {
            report.add({FindingId::ImageNotWritten, "doUpdate returned 0, although " + what + " had failed"});
        }
        return;
    }
    requireCause(told["error"], what + " failed", report);
    if (version != job.versionBefore && version != job.versionAfter && !told["awaited"].asBool() &&
        !isVersionOfNothing(version)) {
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
    const std::vector<Worker::Fault> faults = faultsOf(supervisor.job());
    for (const SeenWrite& write : session.writes.all) {
        const Json::Value& told = session.told[resultOf(write.update)];
        if (write.hasFailed && told.isObject()) {
            const Worker::Fault& fault = faults.at(write.update - 1);
            judgeFault(supervisor, write, fault.isFlush ? fault.number : 0, told, report);
        }
    }
}

// What cannot be read back is not verified.
void failReadingBack(Supervisor& supervisor, Report& report)
{
    Machine machine;
    const Watch holdingReads = {true, 0, 0, 0, false, true};
    const auto script = [](Worker& worker) {
        const Job& job = worker.job();
        if (worker.load()) {
            worker.setContext(job.caller, "");
            tellReturned(worker, "unread",
                         worker.updateUnverified(
                             {job.image, job.checksum, false, "of hardware that cannot be read back"}));
        }
    };
    const Session session = runWith(supervisor, machine, script, holdingReads, report);
    if (session.told.isMember("unread") && session.told["unread"].asInt() == 0) {
        report.add({FindingId::NotReadBack,
                    "doUpdate returned 0, although every read of what it had written had failed (EIO)"});
    }
}
} // namespace

void updateFaultyHardware(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    if (!job.isRepeatable) {
        return;
    }
    if (job.faults.middleWrite != 0) {
        failWrite(supervisor, report);
        failNextUpdate(supervisor, report);
    }
    if (job.faults.lateWrite != 0) {
        judgeGivenUp(supervisor, report);
    }
    spoilWrites(supervisor, report);
    if (!job.faults.flushes.empty() || !job.faults.keyWrites.empty()) {
        failOneByOne(supervisor, report);
    }
    if (!report.has(FindingId::NotReadBack)) {
        failReadingBack(supervisor, report);
    }
}
} // namespace fwmod::examiner
