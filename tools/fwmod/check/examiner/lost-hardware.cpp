#include "tools/fwmod/check/examiner/lost-hardware.h"

#include <system_error>

#include "tools/fwmod/check/examiner/machine/hardware-copy.h"
#include "tools/fwmod/check/examiner/machine/held-image.h"
#include "tools/fwmod/check/examiner/machine/plain-files.h"
#include "tools/fwmod/check/examiner/worker/worker.h"

namespace fwmod::examiner
{

namespace fs = std::filesystem;

namespace
{
constexpr std::uintmax_t kMostNoise = 64 << 20; // bytes: it is all made in memory

void removeHardware(const fs::path& directory)
{
    std::error_code gone;
    for (const fs::path& path : everythingBelow(directory)) {
        fs::remove_all(path, gone);
    }
}

std::uintmax_t sizeOf(const fs::path& file)
{
    std::error_code gone;
    const std::uintmax_t size = fs::file_size(file, gone);
    return gone ? 0 : size;
}

void makeNoiseOf(const fs::path& directory)
{
    for (const fs::path& file : filesIn(directory)) {
        overwrite(file, noise(sizeOf(file)));
    }
}

// As new files: one that is mapped keeps its content.
void empty(const fs::path& directory)
{
    std::error_code gone;
    for (const fs::path& file : filesIn(directory)) {
        fs::remove(file, gone);
        overwrite(file, "");
    }
}

// A file that is kept open goes on to be readable when its name is gone, and a device would not. (One that is
// mapped stays so as well, and memory that is gone has no way to tell it: that is no way to ask hardware.)
bool isHeldOpen()
{
    std::error_code gone;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
        if (fs::read_symlink(entry.path(), gone).string().rfind(kHardware, 0) == 0) {
            return true;
        }
    }
    return false;
}

// ---- Questions ----

void askOnce(Worker& worker, const std::string& where)
{
    constexpr int kTimes = 5;
    worker.setContext(worker.job().caller, "", where);
    worker.repeat("getActiveVersion " + where, kTimes, [&] {
        if (const auto version = worker.activeVersion(where)) {
            worker.tell(where, *version);
        }
        return true; // a failure is right, and must not lose anything either
    });
    if (worker.job().version) {
        worker.repeat("checkVersion " + where, kTimes, [&] {
            const auto verdict = worker.checkVersion(*worker.job().version, where);
            if (verdict && verdict->result == 0 && verdict->verdict > 0) {
                worker.tell("newer " + where, true);
            }
            return true;
        });
    }
}

constexpr const char* kAbsent = "without the hardware";
constexpr const char* kNoise = "of hardware that holds noise";
constexpr const char* kEmpty = "of hardware that is empty";
constexpr const char* kTurned = "of hardware that turned into noise";
constexpr const char* kTakenAway = "of hardware that was taken away";

void askAbsent(Worker& worker)
{
    if (!worker.load()) {
        return;
    }
    askOnce(worker, kAbsent);
    if (!worker.job().isExternal) {
        worker.identifier(kAbsent);
    }
}

void askSpoilt(Worker& worker)
{
    makeNoiseOf(kHardware);
    if (!worker.load()) {
        return;
    }
    askOnce(worker, kNoise);
    empty(kHardware);
    askOnce(worker, kEmpty);
}

void askBeforeAndAfter(Worker& worker)
{
    if (!worker.load()) {
        return;
    }
    worker.setContext(worker.job().caller, "");
    const HardwareCopy original;
    worker.activeVersion("before the hardware goes away");
    makeNoiseOf(kHardware);
    askOnce(worker, kTurned);
    if (!isHeldOpen()) {
        original.putBack();
        removeHardware(kHardware);
        askOnce(worker, kTakenAway);
    }
}

constexpr const char* kUnreadable = "of hardware that cannot be read";

// A part that has no whole firmware may be told as such, and one that cannot be read not.
void askUnreadable(Worker& worker)
{
    constexpr int kTimes = 3;
    if (!worker.load()) {
        return;
    }
    worker.setContext(worker.job().caller, "");
    std::optional<std::string> version;
    worker.repeat(std::string("getActiveVersion ") + kUnreadable, kTimes, [&] {
        version = worker.activeVersionUnread(kUnreadable);
        return true;
    });
    if (version && isVersionOfNothing(*version)) {
        worker.found(FindingId::AbsentToldAsNew,
                     std::string("getActiveVersion ") + kUnreadable + " (EIO) told " + quote(*version));
    }
}

std::uintmax_t sizeOfHardware(const Machine& machine)
{
    std::uintmax_t size = 0;
    for (const fs::path& file : filesIn(machine.file(kHardware))) {
        size += sizeOf(file);
    }
    return size;
}

void judgeAnswers(const Session& session, const std::string& version, Report& report)
{
    for (const char* where : {kAbsent, kTakenAway}) {
        if (session.told.isMember(std::string("newer ") + where) && !session.told.isMember(where)) {
            report.add({FindingId::AbsentToldAsNew,
                        std::string("checkVersion ") + where +
                            " said that the offered version is newer, and getActiveVersion fails"});
        }
        const std::string told = session.told[where].asString();
        if (told != version && !told.empty() && !isVersionOfNothing(told)) {
            report.add({FindingId::ToldWithoutHardware,
                        std::string("getActiveVersion ") + where + " returned 0 and told " + quote(told)});
        }
    }
    for (const char* where : {kAbsent, kNoise, kEmpty, kTurned, kTakenAway}) {
        if (session.told[where].asString() == version) {
            report.add({FindingId::ToldWithoutHardware,
                        std::string("getActiveVersion ") + where + " told " + quote(version)});
        }
    }
}
} // namespace

void askOfLostHardware(Supervisor& supervisor, const Answers& answers, bool isVersionThere, Report& report)
{
    if (!supervisor.job().hasHardware || answers.version.empty()) {
        return;
    }
    Machine absent;
    removeHardware(absent.file(kHardware));
    Machine spoilt;
    Machine going;
    Machine unreadable;
    std::vector<std::pair<Machine*, Script>> all = {{&absent, askAbsent}};
    if (!isVersionOfNothing(answers.version)) {
        all.emplace_back(&unreadable, askUnreadable);
    }
    if (sizeOfHardware(spoilt) <= kMostNoise) {
        all.insert(all.end(), {{&spoilt, askSpoilt}, {&going, askBeforeAndAfter}});
    }
    for (const auto& [machine, script] : all) {
        const bool areReadsHeld = machine == &unreadable;
        const Session session =
            supervisor.run(*machine, script, {areReadsHeld, 0, 0, 0, false, areReadsHeld});
        for (const Finding& finding : session.findings) {
            // As it should be; and what is told of noise need not be text.
            if (finding.id == FindingId::QuestionFailed && finding.detail.rfind("setContext", 0) == 0) {
                report.add({FindingId::ContextTouchesHardware, finding.detail});
            } else if (finding.id != FindingId::QuestionFailed && finding.id != FindingId::NotAscii) {
                report.add(finding);
            }
        }
        if (session.death) {
            report.add(*session.death); // nothing is avoided for it: with its hardware the call may be right
        }
        if (isVersionThere) {
            judgeAnswers(session, answers.version, report);
        }
    }
}

// ---- Updates ----

namespace
{
// What cannot have been written must not be a success.
void updateOf(Supervisor& supervisor, Machine& machine, const std::string& where, Report& report)
{
    constexpr int kTimes = 4;
    const std::size_t before = machine.stateOfHardware();
    const Session session = supervisor.run(machine, [&](Worker& worker) {
        if (!worker.load()) {
            return;
        }
        worker.setContext(worker.job().caller, "", where);
        if (const auto version = worker.activeVersion(where)) {
            worker.tell("version", *version);
        }
        worker.repeat("doUpdate " + where, kTimes, [&] {
            const auto returned = worker.update({worker.job().image, worker.job().checksum, false, where});
            return returned && returned->result != 0;
        });
    });
    for (const Finding& finding : session.findings) {
        if (finding.id != FindingId::QuestionFailed) {
            report.add(finding);
        }
    }
    if (session.death) {
        report.add(*session.death);
        supervisor.avoid(session);
        return;
    }
    const Json::Value& told = session.told;
    if (!told.isMember("result") || machine.stateOfHardware() != before) {
        return;
    }
    const std::string version = told["version"].asString();
    if (told["result"].asInt() != 0 && isVersionOfNothing(version)) {
        report.add({FindingId::AbsentToldAsNew,
                    "getActiveVersion " + where + " told " + quote(version) + ", and doUpdate failed"});
    }
    if (told["result"].asInt() == 0) {
        report.add({FindingId::ImageNotWritten, "doUpdate " + where + " returned 0"});
    } else if (told["error"].asInt() == 0) {
        report.add({FindingId::SilentFailure,
                    "doUpdate " + where + " returned " + told["result"].asString() + " and left errno 0"});
    }
}
} // namespace

void updateLostHardware(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    if (!job.isRepeatable || !job.hasHardware) {
        return;
    }
    Machine absent;
    removeHardware(absent.file(kHardware));
    updateOf(supervisor, absent, kAbsent, report);
    Machine readOnly;
    readOnly.makeReadOnly();
    updateOf(supervisor, readOnly, "of hardware that cannot be written", report);
}
} // namespace fwmod::examiner
