#include "tools/fwmod/check/examiner/faulty-writes.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <set>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "tools/fwmod/check/examiner/machine/hardware-copy.h"
#include "tools/fwmod/check/examiner/machine/held-image.h"
#include "tools/fwmod/check/examiner/machine/plain-files.h"
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

// Of everything, not of one file.
bool isFlushOfAll(const SeenWrite& write)
{
    return write.isFlush() && (write.path.empty() || write.call == "syncfs");
}

// A flush of the directory is none of the files in it, and the other way round.
bool isFlushOf(const SeenWrite& flush, const SeenWrite& write)
{
    const std::filesystem::path path = write.path;
    return isFlushOfAll(flush) ||
           (flush.isFlush() &&
            flush.path == (write.isNaming() ? path.parent_path() : path).lexically_normal());
}

// A name or a selector that comes last is what counts; a spare copy may follow it, and need not be flushed.
void judgeLastFlush(const Writes& writes, Report& report)
{
    const auto last = std::find_if(writes.all.rbegin(), writes.all.rend(),
                                   [](const SeenWrite& write) { return write.isContent(); });
    if (last == writes.all.rend() || !needsFlush(*last) || last->isOfFirmware()) {
        return;
    }
    const bool isFlushed = std::any_of(writes.all.rbegin(), last,
                                       [&](const SeenWrite& write) { return isFlushOf(write, *last); });
    if (!isFlushed) {
        report.add({FindingId::LastNotFlushed,
                    "no flush of it came after the last write (" + last->call + " to " + last->path + ")"});
    }
}

// A file or a directory has another name, and so has what is in it.
void rename(std::vector<SeenWrite>& writes, const SeenWrite& naming)
{
    for (SeenWrite& write : writes) {
        if (!naming.source.empty() && write.path.rfind(naming.source, 0) == 0 &&
            (write.path.size() == naming.source.size() || write.path[naming.source.size()] == '/')) {
            write.path.replace(0, naming.source.size(), naming.path);
        }
    }
}

template <typename Condition>
void remove(std::vector<SeenWrite>& writes, const Condition& condition)
{
    writes.erase(std::remove_if(writes.begin(), writes.end(), condition), writes.end());
}

// Goes on in the order of an update: what is open behind one write more.
void addTo(std::vector<SeenWrite>& open, const SeenWrite& write)
{
    if (write.isFlush()) {
        remove(open, [&](const SeenWrite& each) { return isFlushOf(write, each); });
    } else if (write.call.rfind("unlink", 0) == 0) {
        remove(open, [&](const SeenWrite& each) { return each.path == write.path; });
    } else if (write.isNaming()) {
        remove(open, [&](const SeenWrite& each) { return each.path == write.path; });
        rename(open, write);
    } else if (needsFlush(write) && write.bytes > 0) {
        open.push_back(write);
    }
}

// What was stored into mapped memory is not seen, but that nothing has waited for it.
void judgeMappedMemory(const Writes& writes, Report& report)
{
    const auto begun = std::find_if(writes.all.rbegin(), writes.all.rend(), [](const SeenWrite& write) {
        return write.call == vset::kMsyncWithoutWaiting;
    });
    const bool isAwaited =
        std::any_of(writes.all.rbegin(), begun, [](const SeenWrite& write) { return write.isFlush(); });
    if (begun != writes.all.rend() && !isAwaited) {
        report.add({FindingId::NotFlushed, "the last msync came without MS_SYNC, and waits for nothing"});
    }
}
} // namespace

void judgeFlushes(const Writes& writes, Report& report)
{
    judgeMappedMemory(writes, report);
    std::vector<SeenWrite> open; // content that no flush of it has followed yet
    for (const SeenWrite& write : writes.all) {
        const auto unflushed = std::find_if(open.begin(), open.end(), [&](const SeenWrite& each) {
            return each.isOfFirmware() || each.path == write.source;
        });
        if (write.isNaming() && unflushed != open.end()) {
            report.add({FindingId::NotFlushed,
                        write.path + " got its name (" + write.call + ") before what was written into " +
                            (unflushed->path == write.source ? "it" : unflushed->path) + " was flushed"});
            return;
        }
        addTo(open, write);
    }
    const bool isFlushed = std::any_of(writes.all.begin(), writes.all.end(),
                                       [](const SeenWrite& write) { return write.isFlush(); });
    if (!isFlushed && std::any_of(writes.all.begin(), writes.all.end(), needsFlush)) {
        report.add({FindingId::NotFlushed,
                    "there was no flush among " + std::to_string(writes.all.size()) + " writes"});
        return;
    }
    judgeLastFlush(writes, report);
}

std::vector<SeenWrite> unflushedContent(const Writes& writes)
{
    std::vector<SeenWrite> open;
    for (const SeenWrite& write : writes.all) {
        addTo(open, write);
    }
    remove(open, [](const SeenWrite& write) { return !write.position; });
    return open;
}

std::vector<std::filesystem::path> unflushedNames(const Writes& writes)
{
    std::vector<SeenWrite> open;
    for (const SeenWrite& write : writes.all) {
        const std::filesystem::path path = write.path;
        if (write.isFlush()) {
            remove(open, [&](const SeenWrite& each) {
                return isFlushOfAll(write) || std::filesystem::path(each.path).parent_path() == path;
            });
        } else if (write.isNaming() || write.call.rfind("unlink", 0) == 0) {
            remove(open, [&](const SeenWrite& each) {
                return each.path == write.path || each.path == write.source; // and the new name: see above
            });
            rename(open, write);
        } else if (std::error_code none; write.bytes > 0 && !std::filesystem::exists(path, none)) {
            open.push_back(write); // on the set's own hardware, from which machines are made
        }
    }
    std::vector<std::filesystem::path> names;
    for (const SeenWrite& write : open) {
        names.emplace_back(write.path);
    }
    return names;
}

void lose(const SeenWrite& write, const Machine& machine)
{
    const common::UniqueFd now = openPlain(machine.file(write.path), O_RDWR);
    struct stat file = {};
    if (!now || fstat(now.get(), &file) != 0 || *write.position >= static_cast<std::uint64_t>(file.st_size)) {
        return; // with its name, or it was asked for alone
    }
    const auto position = static_cast<off_t>(*write.position);
    const std::uint64_t rest = static_cast<std::uint64_t>(file.st_size - position);
    std::string old(std::min(write.bytes, rest), '\0');
    // The set's own, from which machines are made.
    const common::UniqueFd before = openPlain(write.path, O_RDONLY);
    (void)!pread(before.get(), old.data(), old.size(), position);
    (void)!pwrite(now.get(), old.data(), old.size(), position);
}

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

// Where the content of each file ends, of a few.
std::set<unsigned int> lastOfEachFile(const Writes& writes)
{
    constexpr std::size_t kMost = 4;
    std::map<std::string, unsigned int> last;
    for (std::size_t index = 0; index < writes.all.size(); ++index) {
        if (writes.all[index].isOfFirmware()) {
            last[writes.all[index].path] = static_cast<unsigned int>(index + 1);
        }
    }
    std::set<unsigned int> chosen;
    for (const auto& [path, write] : last) {
        if (chosen.size() < kMost) {
            chosen.insert(write);
        }
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
    return {writeAtPart(writes, kMiddle), writeAtPart(writes, kLate), keyWritesOf(writes),
            lastOfEachFile(writes), flushesToFail(writes)};
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
    const Session session =
        runWith(supervisor, machine, updateAndAgain, {true, 0, job.faults.middleWrite}, report);
    if (!isReached(session, job.faults.middleWrite)) {
        return;
    }
    const std::string what = nameOf(session, job.faults.middleWrite);
    const Json::Value& told = session.told;
    if (!told.isMember("failure")) {
        if (isSuccess(session) && !job.holders.empty() && !isHeld(machine, imageOf(job), job.holders)) {
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
    if (!job.holders.empty() && !isHeld(machine, imageOf(job), job.holders)) {
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
    if (session.told["error"].asInt() == 0) {
        report.add({FindingId::SilentFailure, "doUpdate, in which " + what + ", left errno 0"});
    }
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
    const bool isRight = !isWrong(session, machine, job);
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
    std::set<unsigned int> others = job.faults.lastWrites;
    for (const unsigned int write : {job.faults.middleWrite, job.faults.lateWrite}) {
        others.erase(write);
        const bool isLate = write == job.faults.lateWrite; // no copy of the old firmware any more
        if (write != 0 && (isLate || !job.holders.empty()) && !report.has(FindingId::NotReadBack)) {
            spoilWrite(supervisor, write, false, report);
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
            first = openFiles(); // with what is kept open for good
        }
    }
    const std::size_t last = openFiles();
    if (last > first) {
        worker.found(FindingId::DescriptorsLeft,
                     "doUpdate, in which a write or a flush fails: " + std::to_string(last - first) +
                         " more after " + std::to_string(update - 1) + " calls");
    }
}

void judgeFault(const SeenWrite& write, const Json::Value& told, const Job& job, Report& report)
{
    const std::string what = write.call + " to " + write.path;
    const std::string version = told["version"].asString();
    if (told["result"].asInt() == 0) {
        // After a flush that failed nobody knows what the hardware has, and the next one does not tell it,
        // either.
        const bool isLost = write.isFlush() || version != job.versionAfter || !told["held"].asBool();
        if (isLost) {
            report.add({FindingId::ImageNotWritten, "doUpdate returned 0, although " + what + " had failed"});
        }
        return;
    }
    if (told["error"].asInt() == 0) {
        report.add({FindingId::SilentFailure, "doUpdate, in which " + what + " failed, left errno 0"});
    }
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
    for (const SeenWrite& write : session.writes.all) {
        const Json::Value& told = session.told[resultOf(write.update)];
        if (write.hasFailed && told.isObject()) {
            judgeFault(write, told, supervisor.job(), report);
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
    if (job.faults.middleWrite != 0) {
        failWrite(supervisor, report);
    }
    spoilWrites(supervisor, report);
    if (!job.faults.flushes.empty() || !job.faults.keyWrites.empty()) {
        failOneByOne(supervisor, report);
    }
}
} // namespace fwmod::examiner
