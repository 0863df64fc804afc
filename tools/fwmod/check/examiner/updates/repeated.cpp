// Several updates in one process.
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "common/files/whole-file.h"
#include "tools/fwmod/check/examiner/machine/hardware-copy.h"
#include "tools/fwmod/check/examiner/updates/odd-images.h"
#include "tools/fwmod/check/examiner/updates/updating.h"

namespace fwmod::examiner
{

namespace fs = std::filesystem;

void updateAgain(Supervisor& supervisor, Report& report)
{
    constexpr int kTimes = 4;
    Machine machine;
    const Session session = supervisor.run(machine, [](Worker& worker) {
        if (!worker.load()) {
            return;
        }
        worker.setContext(worker.job().caller, "");
        Worker::Update update = soundUpdate(worker);
        update.pollProgress = worker.has("getUpdateProgress");
        const pid_t other = fork(); // a child of another module, which will wait for it
        if (other == 0) {
            _exit(0);
        }
        int time = 0;
        worker.repeat("doUpdate", kTimes, [&] {
            const auto returned = worker.update(update);
            if (time++ == 0) {
                tellReturned(worker, "alone", returned);
            }
            return returned.has_value();
        });
        if (other > 0 && waitpid(other, nullptr, 0) != other) {
            worker.found(FindingId::ChildLeft,
                         "doUpdate has waited for a child process that another module had "
                         "started: wait for one's own by its number");
        }
    });
    report.add(session.findings);
    if (session.death) {
        report.add(*session.death);
    }
    if (session.wasHang) {
        supervisor.avoid(session);
    }
    if (supervisor.job().isRepeatable && session.told["alone"].asInt() != 0) {
        report.add({FindingId::SoundImageRefused, "doUpdate" + describe(session.told, "alone") +
                                                      ", in a process that had asked no question"});
    }
}

namespace
{
constexpr const char* kAfterRefused = "after an image that was refused";

// One that is not there any more is put back for what follows.
void lookAtOldFirmware(Worker& worker, const std::optional<Returned>& returned, const std::string& what,
                       const std::optional<std::string>& before, const HardwareCopy& original)
{
    if (returned && returned->result == 0) {
        return original.putBack();
    }
    requireCause(worker, returned, what);
    if (!returned || !before) {
        return;
    }
    const auto version = worker.activeVersion(kAfterRefused);
    if (version != before) {
        worker.found(FindingId::OldFirmwareGone, "after " + what + ", the version is " +
                                                     (version ? quote(*version) : "not told") +
                                                     " instead of " + quote(*before));
        original.putBack();
    }
}

// What an update has brought is not there any more, and must not be told from memory.
void lookAtHardwareOfBefore(Worker& worker, const std::optional<std::string>& before)
{
    const std::string where = "of hardware that was set back after an update";
    const auto version = worker.activeVersion(where);
    if (version && before && version != before && version == worker.job().versionAfter) {
        worker.found(FindingId::VersionOfNote,
                     "getActiveVersion " + where + ", in the same process, told " + quote(*version));
    }
    if (!worker.job().version) {
        return;
    }
    const auto verdict = worker.checkVersion(*worker.job().version, where);
    if (verdict && verdict->result == 0 && verdict->verdict <= 0 && worker.job().isOfferNewer) {
        worker.found(FindingId::OfferNotNewer, "checkVersion(" + quote(*worker.job().version) + ") " + where +
                                                   ", in the same process, wrote " +
                                                   std::to_string(verdict->verdict));
    }
}

Worker::Update otherUpdate(const Job& job)
{
    return {job.otherImage, job.otherChecksum, false, "of the other image"};
}

void updateOneAfterTheOther(Worker& worker, const std::vector<OddImage>& oddImages)
{
    if (!worker.load()) {
        return;
    }
    const HardwareCopy original;
    const Job& job = worker.job();
    worker.setContext(job.caller, "");
    const auto before = worker.activeVersion("before images that are refused");
    if (!job.isExternal) {
        const std::string absent = fs::path(job.image).parent_path() / "absent.bin";
        const auto absentee = worker.update({absent, job.checksum, false, "of a file that is not there"});
        if (absentee && absentee->result == 0) {
            original.putBack(); // judged where it is alone
        }
        worker.setContext(job.caller, "");
        const auto wrong = worker.update({job.image, job.checksum ^ 1, false, "with a wrong checksum"});
        tellReturned(worker, "refused", wrong);
        lookAtOldFirmware(worker, wrong, "doUpdate with a wrong checksum", before, original);
    }
    for (const OddImage& odd : oddImages) {
        worker.setContext(job.caller, "");
        const auto returned = worker.update({odd.file, odd.checksum, false, "of " + odd.what});
        if (odd.what == kChanged) {
            tellReturned(worker, "changed", returned);
        }
        lookAtOldFirmware(worker, returned, "doUpdate of " + odd.what, before, original);
        if (odd.what == kChanged && worker.has("doUpdate_decryption")) {
            const std::string image = common::readWhole(odd.file);
            worker.setContext(TARNWICK_CONTROL_CALLER_ENCRYPTED_IMAGE, "");
            const auto decrypted = worker.decrypt(image, static_cast<int>(image.size()), kChanged);
            if (returned && returned->result != 0 && decrypted && decrypted->result == 0) {
                worker.found(FindingId::ImpossibleDataAccepted, std::string("doUpdate_decryption(") +
                                                                    kChanged +
                                                                    ") returned 0, and doUpdate refuses it");
            }
            lookAtOldFirmware(worker, decrypted, std::string("doUpdate_decryption of ") + kChanged, before,
                              original);
        }
    }
    worker.setContext(job.caller, "");
    tellReturned(worker, "first", worker.update({job.image, job.checksum, false, "after a refused image"}));
    for (int time = 0; time < 2 && worker.has("allUpdateDone"); ++time) {
        worker.allUpdateDone("between two updates");
    }
    original.putBack();
    worker.setContext(job.caller, "");
    lookAtHardwareOfBefore(worker, before);
    tellReturned(worker, "second", worker.update({job.image, job.checksum, false, "for the second time"}));
    tellVersion(worker, "after the second update");
    if (!job.otherImage.empty() && !job.isExternal) {
        original.putBack();
        worker.setContext(job.caller, "");
        tellReturned(worker, "other", worker.update(otherUpdate(job)));
    }
}

// It may be one that the library never takes.
bool isOtherInstalledAlone(Supervisor& supervisor)
{
    Machine machine;
    const Session session = supervisor.run(machine, [](Worker& worker) {
        if (worker.load()) {
            worker.setContext(worker.job().caller, "");
            tellReturned(worker, "other", worker.update(otherUpdate(worker.job())));
        }
    });
    return session.told.isMember("other") && session.told["other"].asInt() == 0;
}

// Where nothing but its checksum tells an image that is sound, one whose checksum is 0 is another sound one.
void updateWithZeroSum(Supervisor& supervisor, const Machine& place, Report& report)
{
    const Job& job = supervisor.job();
    if (fs::file_size(job.image) < kLeastToSolve) {
        return;
    }
    const OddImage zero = makeZeroImage(job, place);
    Machine machine;
    const Session session = supervisor.run(machine, [&](Worker& worker) {
        if (worker.load()) {
            worker.setContext(job.caller, "");
            tellReturned(worker, "zero", worker.update({zero.file, 0, false, "of " + zero.what}));
        }
    });
    report.add(session.findings);
    if (session.death) {
        report.add(*session.death);
        supervisor.avoid(session);
    }
    if (session.told["zero"].asInt() != 0) {
        report.add(
            {FindingId::SoundImageRefused, "doUpdate of " + zero.what + describe(session.told, "zero") +
                                               "; one with another byte and another checksum is installed"});
    }
}
} // namespace

void updateInOneProcess(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    if (!job.isRepeatable) {
        return;
    }
    Machine machine;
    const Machine place;
    auto odd = job.isExternal ? std::vector<OddImage>() : makeOddImages(job, place);
    if (!odd.empty() && fs::file_size(job.image) > 0) {
        odd.push_back(makeChangedImage(job, place));
        odd.push_back(makeLongerImage(job, place));
    }
    const Session session =
        supervisor.run(machine, [&](Worker& worker) { updateOneAfterTheOther(worker, odd); });
    for (const Finding& finding : session.findings) {
        const bool isJudged = finding.id == FindingId::QuestionFailed &&
                              finding.detail.find(kAfterRefused) != std::string::npos;
        if (!isJudged) {
            report.add(finding);
        }
    }
    if (session.death) {
        report.add(*session.death);
        supervisor.avoid(session);
    }
    const Json::Value& told = session.told;
    if (told.isMember("changed") && told["changed"].asInt() == 0) {
        updateWithZeroSum(supervisor, place, report);
    }
    const bool isRefused = job.isExternal || (told.isMember("refused") && told["refused"].asInt() != 0);
    if (!told.isMember("first") || !isRefused) {
        return; // a wrong checksum that is accepted is told elsewhere
    }
    if (told["first"].asInt() != 0) {
        report.add(
            {FindingId::NoUpdateAfterRefusal, "doUpdate of the sound image" + describe(told, "first")});
        return;
    }
    if (!told.isMember("second")) {
        return;
    }
    if (told["second"].asInt() != 0) {
        report.add({FindingId::NoSecondUpdate, "the second doUpdate" + describe(told, "second")});
    } else if (told.isMember("version") && told["version"].asString() != job.versionAfter) {
        report.add({FindingId::NoSecondUpdate, "the second doUpdate returned 0, and getActiveVersion told " +
                                                   quote(told["version"].asString())});
    } else if (told.isMember("other") && told["other"].asInt() != 0 && isOtherInstalledAlone(supervisor)) {
        report.add({FindingId::NoSecondUpdate,
                    "doUpdate of the other image in the process that has updated" + describe(told, "other")});
    }
}
} // namespace fwmod::examiner
