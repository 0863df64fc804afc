// Images that must be refused, and one that must not be looked for at its usual place.
#include <fstream>
#include <optional>
#include <vector>

#include "common/files/file-copy.h"
#include "tools/fwmod/check/examiner/machine/hardware-openings.h"
#include "tools/fwmod/check/examiner/updates/odd-images.h"
#include "tools/fwmod/check/examiner/updates/updating.h"

namespace fwmod::examiner
{

namespace fs = std::filesystem;

namespace
{
struct Refusal {
    std::string where; // in words, behind "doUpdate"
    std::string image;
    unsigned long checksum;
    std::optional<FindingId> finding; // when it is accepted; nothing: it may be
    fs::path otherImages;             // seen instead of those that the set has
};

// The same files with one byte of each image inverted in its middle.
void damageImages(const fs::path& from, const fs::path& to)
{
    copyTree(from, to);
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(to)) {
        if (!entry.is_regular_file() || entry.path().extension() != ".bin" || entry.file_size() == 0) {
            continue;
        }
        std::fstream file(entry.path(), std::ios::binary | std::ios::in | std::ios::out);
        const auto middle = static_cast<std::streamoff>(entry.file_size() / 2);
        file.seekg(middle);
        const char byte = static_cast<char>(file.get());
        file.seekp(middle);
        file.put(static_cast<char>(~byte));
    }
}

std::vector<Refusal> refusals(const Job& job, const Machine& scratch)
{
    if (job.isExternal) {
        const fs::path none = scratch.file("/none");
        const fs::path damaged = scratch.file("/damaged");
        fs::create_directory(none);
        damageImages(job.imageDirectory, damaged);
        return {{"without an image", job.image, 0, FindingId::AbsentImageAccepted, none},
                {"of a damaged image", job.image, 0, FindingId::WrongChecksumAccepted, damaged}};
    }
    const std::string absent = fs::path(job.image).parent_path() / "absent.bin";
    const std::optional<FindingId> wrong = FindingId::WrongChecksumAccepted;
    // 0 is a checksum like any other; only one that is wrong is tried.
    std::vector<Refusal> all = {
        {"with the checksum 0", job.image, 0, job.checksum == 0 ? std::nullopt : wrong, {}},
        {"with a checksum that is one more", job.image, (job.checksum + 1) & 0xffffffff, wrong, {}},
        {"with a checksum whose highest bit differs", job.image, job.checksum ^ 0x80000000, wrong, {}},
        {"of a file that is not there", absent, job.checksum, FindingId::AbsentImageAccepted, {}},
        {"with the library's name and 0", job.name, 0, std::nullopt, {}}};
    for (const OddImage& odd : makeOddImages(job, scratch)) {
        all.push_back({"of " + odd.what, odd.file, odd.checksum, std::nullopt, {}});
    }
    return all;
}

// Whether the image of an update that was refused was opened at all; nothing where it was not refused.
std::optional<bool> tryRefusal(Supervisor& supervisor, const Refusal& refusal, Report& report)
{
    constexpr int kTimes = 5;
    Machine machine;
    if (!refusal.otherImages.empty()) {
        machine.replaceDirectory(supervisor.job().imageDirectory, refusal.otherImages);
    }
    const std::size_t stateBefore = machine.stateOfHardware();
    const std::string what = "doUpdate " + refusal.where;
    const Session session = supervisor.run(machine, [&](Worker& worker) {
        if (!worker.load()) {
            return;
        }
        worker.setContext(worker.job().caller, "");
        if (const auto version = worker.activeVersion("before a refused update")) {
            worker.tell("before", *version);
        }
        const Worker::Update update = {refusal.image, refusal.checksum, false, refusal.where};
        const FileOpenings openings(refusal.image);
        worker.repeat(what, kTimes, [&] {
            const auto returned = worker.update(update);
            return returned && returned->result != 0;
        });
        worker.tell("opened", openings.isAny());
        tellVersion(worker, "after a refused update");
    });
    for (const Finding& finding : session.findings) {
        if (finding.id != FindingId::QuestionFailed) { // of the version after it: see below
            report.add(finding);
        }
    }
    if (session.death) {
        report.add(*session.death);
        supervisor.avoid(session);
        return std::nullopt;
    }
    if (!session.told.isMember("result")) {
        return std::nullopt;
    }
    if (session.told["result"].asInt() == 0) {
        if (refusal.finding) {
            report.add({*refusal.finding, what + " returned 0"});
        } else if (machine.stateOfHardware() == stateBefore) {
            report.add({FindingId::ImageNotWritten, what + " returned 0, and nothing has changed"});
        }
        return std::nullopt;
    }
    const int error = session.told["error"].asInt();
    const bool isOfContent =
        supervisor.job().isRepeatable && refusal.finding == FindingId::WrongChecksumAccepted;
    if (const std::string why = whyNoCause(error); !why.empty() && (error == 0 || isOfContent)) {
        report.add({FindingId::SilentFailure,
                    what + " returned " + session.told["result"].asString() + " and " + why});
    }
    judgeOldFirmware(supervisor, machine, session, what, report);
    return session.told["opened"].asBool();
}

// The path that is given counts, and nothing else; it may be longer than usual.
constexpr std::size_t kLongName = 150;

} // namespace

void updateFromElsewhere(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    if (job.isExternal || !job.isRepeatable) {
        return;
    }
    const Machine place;
    const fs::path damaged = place.file("/damaged");
    const fs::path elsewhere = place.file("/elsewhere-" + std::string(kLongName, 'x'));
    damageImages(job.imageDirectory, damaged);
    copyTree(job.imageDirectory, elsewhere);
    const std::string image = elsewhere / fs::path(job.image).filename();
    Machine machine;
    machine.replaceDirectory(job.imageDirectory, damaged);
    const Session session = supervisor.run(machine, [&](Worker& worker) {
        if (!worker.load()) {
            return;
        }
        worker.setContext(worker.job().caller, "");
        worker.update({image, worker.job().checksum, false, "of an image at another path"});
        tellVersion(worker, "after an update from another path");
    });
    report.add(session.findings);
    const std::string where = "of an image at another path, with a damaged one at the usual one, ";
    if (session.death) {
        report.add(*session.death);
    } else if (!session.told.isMember("result")) {
        return;
    } else if (session.told["result"].asInt() != 0) {
        report.add({FindingId::SoundImageRefused, where + describeUpdate(session)});
    } else if (session.told["version"].asString() != job.versionAfter) {
        report.add({FindingId::SoundImageRefused, where + "doUpdate returned 0, and getActiveVersion told " +
                                                      quote(session.told["version"].asString())});
    }
}

void updateUnreadImage(Supervisor& supervisor, Report& report)
{
    constexpr int kTimes = 3;
    if (!supervisor.job().isRepeatable) {
        return;
    }
    Machine machine;
    const Watch holdingReads = {true, 0, 0, 0, false, true};
    const Session session = supervisor.run(
        machine,
        [](Worker& worker) {
            if (!worker.load()) {
                return;
            }
            Worker::Update update = soundUpdate(worker);
            update.where = "of an image that cannot be read";
            worker.setContext(worker.job().caller, "");
            worker.repeat("doUpdate " + update.where, kTimes, [&] {
                const auto returned = worker.updateUnread(update);
                tellReturned(worker, "unread", returned);
                return returned && returned->result != 0;
            });
        },
        holdingReads);
    report.add(session.findings);
    if (session.death) {
        report.add(*session.death);
        supervisor.avoid(session);
    }
    if (!session.told.isMember("unread")) {
        return;
    }
    const std::string why = whyNoCause(session.told["unreadError"].asInt());
    if (session.told["unread"].asInt() == 0) {
        report.add({FindingId::AbsentImageAccepted,
                    "doUpdate returned 0, although every read of the image had failed (EIO)"});
    } else if (!why.empty()) {
        report.add({FindingId::SilentFailure, "doUpdate of an image that cannot be read (EIO) " + why});
    }
}

void refuseImages(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    const Machine scratch;
    bool isZeroUnread = false; // refused without a look at the image
    for (const Refusal& refusal : refusals(job, scratch)) {
        const std::optional<bool> isRead = tryRefusal(supervisor, refusal, report);
        const bool isOfChecksum = !job.isExternal && refusal.image == job.image;
        if (isRead && isOfChecksum && refusal.checksum == 0) {
            isZeroUnread = !*isRead;
        } else if (isRead.value_or(false) && isOfChecksum && isZeroUnread) {
            report.add({FindingId::SoundImageRefused,
                        "doUpdate with the checksum 0 failed without opening the image, which it opens with "
                        "another wrong checksum: an image whose checksum is 0 is never installed"});
            isZeroUnread = false;
        }
    }
}
} // namespace fwmod::examiner
