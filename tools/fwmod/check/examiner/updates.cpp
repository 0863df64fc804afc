#include "tools/fwmod/check/examiner/updates.h"

#include <algorithm>
#include <boost/crc.hpp>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <sys/wait.h>
#include <unistd.h>

#include "common/files/file-copy.h"
#include "common/files/whole-file.h"
#include "tools/fwmod/check/examiner/faulty-writes.h"
#include "tools/fwmod/check/examiner/flush-order.h"
#include "tools/fwmod/check/examiner/machine/hardware-copy.h"
#include "tools/fwmod/check/examiner/machine/hardware-openings.h"
#include "tools/fwmod/check/examiner/machine/held-image.h"
#include "tools/fwmod/check/examiner/machine/plain-files.h"
#include "tools/fwmod/check/examiner/worker.h"

namespace fwmod::examiner
{

namespace fs = std::filesystem;

namespace
{
constexpr double kTooFast = 0.05;     // seconds; the rule is 0.1, the rest is for the clock
constexpr double kSlowProgress = 1.0; // seconds
constexpr double kBlocked = 0.07;     // of a progress call that waits for a third of the update
constexpr double kMostWaited = 3;
constexpr double kExpectedMargin = 2; // times the measured duration
constexpr int kOddTime = 600;         // seconds: a longer update is a rare one
constexpr double kOddRatio = 700;     // of the expected time to the measured one
constexpr unsigned int kLittle = 20;  // percent at which no update ends
constexpr int kFewSamples = 15;       // one every 10 ms: a shorter update need not be seen to rise
constexpr int kSomeSamples = 30;      // of a progress that has moved
constexpr int kManySamples = 60;      // at one stage of it: a busy PC may have looked at no other

std::string inSeconds(double seconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f s", seconds);
    return text;
}

Worker::Update soundUpdate(const Worker& worker)
{
    return {worker.job().image, worker.job().checksum, false, ""};
}

// Of the session's last update.
std::string describeUpdate(const Session& session)
{
    return "doUpdate returned " + session.told["result"].asString() +
           ", errno: " + errorName(session.told["error"].asInt());
}

void tellReturned(Worker& worker, const std::string& key, const std::optional<Returned>& returned)
{
    if (!returned) {
        return;
    }
    worker.tell(key, returned->result);
    worker.tell(key + "Error", returned->error);
}

std::string describe(const Json::Value& told, const std::string& key)
{
    return " returned " + told[key].asString() + ", errno: " + errorName(told[key + "Error"].asInt());
}
// ---- Judgement of a sound update ----

void judgeProgress(const Session& session, Report& report)
{
    const Json::Value& progress = session.told["progress"];
    if (!progress.isObject()) {
        return;
    }
    const double duration = session.told["duration"].asDouble();
    const double slowest = progress["slowest"].asDouble();
    const bool waited = slowest > kBlocked && slowest > duration / kMostWaited;
    if (waited || slowest > kSlowProgress) {
        report.add({FindingId::ProgressWaits, "getUpdateProgress took " + inSeconds(slowest) +
                                                  " of the update's " + inSeconds(duration)});
    }
    constexpr double kLook = 0.01; // seconds between two looks: no more than these on a PC without other work
    const int samples = std::min(progress["samples"].asInt(), static_cast<int>(duration / kLook) + 1);
    const int failures = progress["failures"].asInt();
    const bool isStage = progress["last"].asUInt() > 0 && progress["last"].asUInt() < 100;
    if (failures > samples) {
        report.add({FindingId::NoProgress, "getUpdateProgress failed at " + std::to_string(failures) +
                                               " of " + std::to_string(failures + samples) +
                                               " looks during the update"});
    } else if (samples >= (isStage ? kManySamples : kFewSamples) && progress["values"].asInt() == 1) {
        report.add({FindingId::NoProgress, "getUpdateProgress told " + progress["last"].asString() +
                                               " at each of " + std::to_string(samples) +
                                               " looks during the update"});
    }
    const unsigned int highest =
        std::max(progress["highest"].asUInt(), session.told["progressAfter"].asUInt());
    if (samples >= kSomeSamples && progress["values"].asInt() > 1 && highest < kLittle) {
        report.add({FindingId::NoProgress, "getUpdateProgress told " + std::to_string(highest) +
                                               " at most, at " + std::to_string(samples) +
                                               " looks during the update and after it"});
    }
    if (!progress["fall"].asString().empty()) {
        report.add({FindingId::FallingProgress, "getUpdateProgress fell " + progress["fall"].asString()});
    }
    if (progress["highest"].asUInt() > 100) {
        report.add({FindingId::ProgressOver100,
                    "getUpdateProgress told " + progress["highest"].asString() + " during the update"});
    }
}

void judgeDuration(const Session& session, const Job& job, Report& report)
{
    const double duration = session.told["duration"].asDouble();
    const auto proposal = std::max(static_cast<unsigned int>(std::ceil(duration * kExpectedMargin)), 1U);
    report.measured.duration = duration;
    report.measured.proposedExpectedTime = proposal;
    if (duration < kTooFast) {
        report.add({FindingId::UpdateTooFast, "doUpdate returned 0 after " + inSeconds(duration)});
    }
    const double ownTime = std::max(duration - session.watchDelay, 0.0);
    if (session.told.isMember("expectedTime") && ownTime > session.told["expectedTime"].asInt()) {
        report.add({FindingId::UselessExpectedTime, "getExpectedTime told " +
                                                        session.told["expectedTime"].asString() +
                                                        " s, and doUpdate took " + inSeconds(duration)});
    }
    if (session.told.isMember("expectedTime") && session.told["expectedTime"].asInt() > kOddTime &&
        session.told["expectedTime"].asInt() > kOddRatio * duration) {
        report.add({FindingId::UselessExpectedTime,
                    "getExpectedTime told " + session.told["expectedTime"].asString() +
                        " s, and doUpdate took " + inSeconds(duration) + ": are these milliseconds?"});
    }
    if (!job.isExternal && ownTime > job.expectedTime) {
        report.add({FindingId::ExpectedTimeTooShort,
                    "doUpdate took " + inSeconds(duration) + ", and " + std::to_string(job.expectedTime) +
                        " s are expected; proposed: " + std::to_string(proposal) + " s"});
    }
}

// What is wrong with the version that a session has told after an update. A library may spell it in another
// way than the information file, if it takes the two as the same.
std::optional<Finding> wrongVersion(const Json::Value& told, const std::string& before, const Job& job)
{
    if (!job.version || !told.isMember("version")) {
        return std::nullopt;
    }
    const std::string version = told["version"].asString();
    const bool isSame = told.isMember("verdict") && told["verdict"].asInt() == 0;
    const bool isNewerStill = told.isMember("verdict") && told["verdict"].asInt() > 0;
    const std::string newer = isNewerStill ? "; checkVersion says that it is newer still" : "";
    if (version == *job.version && isNewerStill) {
        return Finding{FindingId::InstalledIsNewer, "getActiveVersion told " + quote(version) + newer};
    }
    if (version != *job.version && (!isSame || version == before)) {
        return Finding{FindingId::WrongVersionAfterwards, "getActiveVersion told " + quote(version) +
                                                              ", and " + quote(*job.version) +
                                                              " was written" + newer};
    }
    return std::nullopt;
}

void look(Worker& worker)
{
    worker.tell("loaded", worker.load());
    const auto version = tellVersion(worker, "after the update and a new start").version;
    if (version && version == worker.job().version) {
        askAboutOrder(worker, *version);
    }
}

Session lookAgain(Supervisor& supervisor, Machine& machine)
{
    return supervisor.run(machine, look);
}

// And update with what is there already: that may leave out the writing, but takes its time. One that begins
// to write is ended then.
Session lookAndUpdate(Supervisor& supervisor, Machine& machine)
{
    const auto script = [](Worker& worker) {
        look(worker);
        worker.setContext(worker.job().caller, "");
        Worker::Update update = soundUpdate(worker);
        update.where = "of the image that is installed";
        const auto returned = worker.update(update);
        if (returned && returned->result == 0 && returned->taken.count() < kTooFast) {
            worker.found(FindingId::UpdateTooFast, "doUpdate " + update.where + " returned 0 after " +
                                                       inSeconds(returned->taken.count()));
        }
    };
    return supervisor.run(machine, script, {true, 1});
}

// Whether the image was written when doUpdate returned, as far as it can be seen.
bool judgeWrites(const Session& session, const Machine& machine, std::size_t stateBefore, Report& report)
{
    const Writes& writes = session.writes;
    report.measured.writes = writes.during;
    if (writes.late > 0) {
        report.add(
            {FindingId::ImageNotWritten,
             std::to_string(writes.during) + " writes before doUpdate returned 0, and more afterwards"});
        return false;
    }
    const auto isOrdered = [](const SeenWrite& write) { return write.isContent() || write.isFlush(); };
    if (std::none_of(writes.all.begin(), writes.all.end(), isOrdered) &&
        machine.stateOfHardware() != stateBefore) {
        report.add({FindingId::NotFlushed, "the hardware was written through mapped memory, and nothing was "
                                           "flushed: msync needs MS_SYNC"});
    }
    if (writes.during > 0) {
        return true;
    }
    if (machine.stateOfHardware() != stateBefore) {
        report.notes.emplace_back(
            "The hardware is written through mapped memory or by renaming alone: such writes cannot "
            "be watched, so no power was cut.");
        return false;
    }
    report.add({FindingId::ImageNotWritten,
                "doUpdate returned 0, no write was seen, and nothing under /var/lib has changed"});
    return false;
}

void updateAndLook(Worker& worker)
{
    if (!worker.load()) {
        return;
    }
    worker.setContext(worker.job().caller, "");
    if (const auto version = worker.activeVersion("before the update")) {
        worker.tell("before", *version);
    }
    if (worker.job().version) {
        worker.checkVersion(*worker.job().version, "before the update");
    }
    Worker::Update update = soundUpdate(worker);
    update.pollProgress = worker.has("getUpdateProgress");
    worker.update(update);
    tellVersion(worker, "after the update");
    if (worker.has("getUpdateProgress")) {
        worker.tell("progressAfter", worker.progress("after the update").value_or(0));
    }
    if (worker.has("allUpdateDone")) {
        worker.allUpdateDone("after the update");
    }
    const auto expected = worker.has("getExpectedTime") ? worker.expectedTime() : std::optional<int>();
    if (expected) {
        worker.tell("expectedTime", *expected);
    }
}

// The update again, in a process that ends as an ordinary program does.
bool isFinishedAtExit(Supervisor& supervisor)
{
    Machine machine;
    supervisor.run(machine, [](Worker& worker) {
        if (!worker.load()) {
            return;
        }
        worker.setContext(worker.job().caller, "");
        worker.update(soundUpdate(worker));
        std::exit(EXIT_SUCCESS);
    });
    return lookAgain(supervisor, machine).told["version"].asString() == supervisor.job().version;
}

// As far as the image is kept as it is.
void judgeContent(const Machine& machine, const Job& job, Report& report)
{
    const std::string image = imageOf(job);
    report.measured.holders = holdersOf(machine, image);
    const auto missing =
        report.measured.holders.empty() && !image.empty() ? missingAtEnd(machine, image) : std::nullopt;
    if (missing) {
        report.add({FindingId::EndMissing, "the last " + std::to_string(*missing) + " of the image's " +
                                               std::to_string(image.size()) +
                                               " bytes are not on the hardware"});
    }
}

// The version of this hardware after a power cut that has lost something more of it.
std::string versionAfterLoss(Supervisor& supervisor, const Machine& machine,
                             const std::function<void(const Machine&)>& loss)
{
    Machine cut;
    fs::remove_all(cut.file(kHardware));
    copyTree(machine.file(kHardware), cut.file(kHardware));
    loss(cut);
    return lookAgain(supervisor, cut).told["version"].asString();
}

// What an update has left beside the hardware's files and is too small for firmware.
struct Notes {
    std::vector<fs::path> files;
    bool areAlone = true; // there is no new firmware beside them
};

Notes newNotes(const Machine& machine, const Machine& before)
{
    constexpr std::uintmax_t kLongestNote = 256; // bytes
    const fs::path root = machine.file("/");
    Notes notes;
    for (const fs::path& file : filesIn(machine.file(kHardware))) {
        const fs::path path = "/" / file.lexically_relative(root);
        if (fs::exists(before.file(path))) {
            continue;
        }
        if (fs::file_size(file) > kLongestNote) {
            notes.areAlone = false;
        } else {
            notes.files.push_back(path);
        }
    }
    return notes;
}

// The new firmware's version is told without them, too: they only repeat it, and are no part of it.
bool areSpare(Supervisor& supervisor, const Machine& machine, const Notes& notes, const std::string& version)
{
    return versionAfterLoss(supervisor, machine, [&](const Machine& cut) {
               for (const fs::path& note : notes.files) {
                   fs::remove(cut.file(note));
               }
           }) == version;
}

// The old hardware beside what the update has left: the new version is not in it.
void judgeNotes(Supervisor& supervisor, const Machine& machine, const std::string& version, Report& report)
{
    Machine old;
    const Notes notes = newNotes(machine, old);
    if (notes.files.empty() || version.empty()) {
        return;
    }
    for (const fs::path& note : notes.files) {
        fs::create_directories(old.file(note).parent_path());
        common::copyFile(machine.file(note), old.file(note));
        fs::permissions(old.file(note), fs::perms(0644));
    }
    const std::string told = lookAgain(supervisor, old).told["version"].asString();
    if (told == version && (notes.areAlone || areSpare(supervisor, machine, notes, version))) {
        report.add({FindingId::VersionOfNote, "with the old hardware put back beside " +
                                                  notes.files.front().string() + ", getActiveVersion told " +
                                                  quote(told)});
    }
}

std::string inWords(const std::string& told)
{
    return "; without it getActiveVersion " + (told.empty() ? "tells nothing" : "tells " + quote(told));
}

// What no flush has followed may be lost when doUpdate has returned: a spare copy or a note, but not what the
// version is told of. `where`: for the report, of which update.
void judgeEnd(Supervisor& supervisor, const Machine& machine, const Writes& writes,
              const std::string& version, const std::string& where, Report& report)
{
    if (version.empty()) {
        return;
    }
    const auto judge = [&](const std::string& what, const std::function<void(const Machine&)>& loss) {
        const std::string told =
            report.has(FindingId::LastNotFlushed) ? version : versionAfterLoss(supervisor, machine, loss);
        if (told != version) {
            report.add({FindingId::LastNotFlushed, where + what + inWords(told)});
        }
    };
    if (const std::vector<SeenWrite> open = unflushedContent(writes); !open.empty()) {
        judge("no flush came after the last write (" + open.back().inWords() + ")", [&](const Machine& cut) {
            std::for_each(open.begin(), open.end(), [&](const SeenWrite& write) { lose(write, cut); });
        });
    }
    if (const std::vector<fs::path> names = unflushedNames(writes); !names.empty()) {
        judge("no flush of " + names.back().parent_path().string() + " came after " +
                  names.back().filename().string() + " had been made there",
              [&](const Machine& cut) {
                  std::error_code gone;
                  std::for_each(names.begin(), names.end(),
                                [&](const fs::path& name) { fs::remove(cut.file(name), gone); });
              });
    }
    for (const SeenWrite& naming : unflushedNamings(writes)) {
        judge("no flush of " + fs::path(naming.path).parent_path().string() + " came after " +
                  fs::path(naming.path).filename().string() + " had got its name (" + naming.call + ")",
              [&](const Machine& cut) { loseName(naming, cut); });
    }
}

// In the process that has updated, and after a new start.
void judgeVersions(Supervisor& supervisor, const Session& session, const Session& again, Report& report)
{
    const Job& job = supervisor.job();
    const std::string before = session.told["before"].asString();
    const std::optional<Finding> wrong = wrongVersion(session.told, before, job);
    const std::optional<Finding> wrongAgain = wrongVersion(again.told, before, job);
    if (wrong) {
        report.add(*wrong);
    } else if (wrongAgain) {
        report.add({wrongAgain->id, "after a new start, " + wrongAgain->detail});
    }
    const auto isOld = [](const std::optional<Finding>& finding) {
        return finding && finding->id == FindingId::WrongVersionAfterwards;
    };
    if (isOld(wrong) && isOld(wrongAgain) && isFinishedAtExit(supervisor)) {
        report.add({FindingId::FinishedAtExit,
                    "after exit() getActiveVersion told " + quote(*job.version) + ", and without it not"});
    }
}
} // namespace

unsigned long checksumOf(const std::string& image)
{
    boost::crc_optimal<32, 0x01B23CA3, 0, 0, false, false> checksum;
    checksum.process_bytes(image.data(), image.size());
    return checksum.checksum();
}

Told tellVersion(Worker& worker, const std::string& where)
{
    Told told;
    worker.setContext(worker.job().caller, "", where);
    told.version = worker.activeVersion(where);
    if (told.version) {
        worker.tell("version", *told.version);
    }
    if (!worker.job().version) {
        return told;
    }
    const auto verdict = worker.checkVersion(*worker.job().version, where);
    if (verdict && verdict->result == 0) {
        told.verdict = verdict->verdict;
        worker.tell("verdict", verdict->verdict);
    }
    return told;
}

GoodUpdate updateOnce(Supervisor& supervisor, const Answers& answers, Report& report)
{
    const Job& job = supervisor.job();
    Machine machine;
    const std::size_t stateBefore = machine.stateOfHardware();
    const Session session = supervisor.run(machine, updateAndLook, {true, 0, 0, 0, true});
    GoodUpdate update;
    update.writes = session.writes;
    update.before = session.told["before"].asString();
    report.add(session.findings);
    if (session.death) {
        report.add(*session.death);
        supervisor.avoid(session);
    }
    if (!session.told.isMember("result")) {
        return update;
    }
    update.isAnswered = true;
    if (session.told["result"].asInt() != 0) {
        report.add(
            {FindingId::SoundImageRefused,
             describeUpdate(session) +
                 (job.isExternal ? "; it was called with the library's name and 0, and no path" : "")});
        return update;
    }
    const bool isWritten = judgeWrites(session, machine, stateBefore, report);
    if (report.has(FindingId::ImageNotWritten)) {
        return update; // the rest would only follow from it
    }
    judgeProgress(session, report);
    judgeDuration(session, job, report);
    judgeContent(machine, job, report);
    judgeFlushes(session.writes, machine, report);
    report.measured.faults = faultPlacesOf(session.writes);
    if (!session.mappedFlushes.empty()) {
        report.measured.faults.isMapped = true;
        report.notes.emplace_back(
            "The hardware is written through mapped memory, and such stores cannot be watched: the power was "
            "cut only at flushes and other calls, with a part of what had been stored before each.");
    }
    const bool isVersionTold = !answers.version.empty() && !report.has(FindingId::ChangingAnswer);
    if (isVersionTold) {
        judgeNotes(supervisor, machine, session.told["version"].asString(), report);
    }
    if (isVersionTold && !report.has(FindingId::NotFlushed)) {
        judgeEnd(supervisor, machine, session.writes, session.told["version"].asString(), "", report);
    }
    const Session again = lookAndUpdate(supervisor, machine);
    if (isVersionTold) {
        judgeVersions(supervisor, session, again, report);
    }
    if (again.death) {
        report.add(*again.death);
    }
    report.add(again.findings);
    update.after = again.told["version"].asString();
    report.measured.versionAfter = update.after;
    update.isUsable = isWritten && isVersionTold && !session.death && !again.death;
    return update;
}

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

// ---- Several calls in one process ----

namespace
{
// What is refused for its content only, at most: its checksum is right.
struct OddImage {
    std::string what;
    std::string file;
    unsigned long checksum;
};

OddImage makeOddImage(const Job& job, const fs::path& directory, const std::string& what,
                      const std::string& content)
{
    fs::create_directory(directory);
    const fs::path file = directory / fs::path(job.image).filename();
    std::ofstream(file, std::ios::binary) << content;
    return {what, file, checksumOf(content)};
}

std::vector<OddImage> makeOddImages(const Job& job, const Machine& place)
{
    const std::string image = imageOf(job);
    return {
        makeOddImage(job, place.file("/half"), "the image's first half", image.substr(0, image.size() / 2)),
        makeOddImage(job, place.file("/noise"), "noise", noise(image.size())),
        makeOddImage(job, place.file("/nothing"), "no bytes at all", "")};
}

constexpr const char* kChanged = "the image with one byte changed";
constexpr std::uintmax_t kLeastToSolve = 16; // bytes, of which four decide the checksum
constexpr const char* kZeroSum = "another image, whose checksum is 0";
constexpr const char* kAfterRefused = "after an image that was refused";

// Whether it can be told from the image is the format's affair: it may have a checksum of its own.
OddImage makeChangedImage(const Job& job, const Machine& place)
{
    std::string image = imageOf(job);
    image[image.size() / 2] = static_cast<char>(~image[image.size() / 2]);
    return makeOddImage(job, place.file("/changed"), kChanged, image);
}

// The register of the checksum as it was before its last byte, which has been `byte`.
std::uint32_t registerBefore(std::uint32_t now, unsigned char byte)
{
    constexpr std::uint32_t kPolynomial = 0x01B23CA3;
    for (int bit = 0; bit < 8; ++bit) {
        now = (now & 1) != 0 ? (now ^ kPolynomial) >> 1 | 0x80000000U : now >> 1;
    }
    return now ^ static_cast<std::uint32_t>(byte) << 24;
}

// With four bytes changed so that its checksum is 0.
OddImage makeZeroImage(const Job& job, const Machine& place)
{
    std::string image = imageOf(job);
    const std::size_t at =
        image.size() - image.size() / 8 - sizeof(std::uint32_t); // from there on it is slow
    std::uint32_t sum = 0;
    for (std::size_t end = image.size(); end-- > at + sizeof sum;) {
        sum = registerBefore(sum, static_cast<unsigned char>(image[end]));
    }
    for (std::size_t byte = 0; byte < sizeof sum; ++byte) {
        sum = registerBefore(sum, 0);
    }
    sum ^= static_cast<std::uint32_t>(checksumOf(image.substr(0, at)));
    for (std::size_t byte = 0; byte < sizeof sum; ++byte) {
        image[at + byte] = static_cast<char>(sum >> (24 - 8 * byte));
    }
    return makeOddImage(job, place.file("/zero"), kZeroSum, image);
}

// More than a careless buffer has.
OddImage makeLongerImage(const Job& job, const Machine& place)
{
    constexpr std::size_t kMore = 8 << 20;
    return makeOddImage(job, place.file("/longer"), "the image with 8 MiB of zeros behind it",
                        imageOf(job) + std::string(kMore, '\0'));
}

void requireCause(Worker& worker, const std::optional<Returned>& returned, const std::string& what)
{
    if (returned && returned->result != 0 && returned->error == 0) {
        worker.found(FindingId::SilentFailure,
                     what + " returned " + std::to_string(returned->result) + " and left errno 0");
    }
}

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
    }
}

namespace
{
void updateWithNotices(Worker& worker)
{
    if (!worker.load() || !worker.has("allUpdateDone")) {
        return;
    }
    const Worker::Update update = {worker.job().image, worker.job().checksum, false, "with notices"};
    worker.setContext(worker.job().caller, "");
    tellReturned(worker, "update", worker.updateUnderNotices(update));
    tellVersion(worker, "after an update with notices");
}

// Nothing when the update has not minded.
std::optional<Finding> judgeDisturbed(const Session& session, const Job& job, FindingId finding,
                                      const std::string& call)
{
    const Json::Value& told = session.told;
    if (session.death) {
        return session.death;
    }
    if (!told.isMember("update")) {
        return std::nullopt;
    }
    if (told["update"].asInt() != 0) {
        return Finding{finding,
                       "doUpdate" + describe(told, "update") + ", after " + call + " was called meanwhile"};
    }
    if (told.isMember("version") && told["version"].asString() != job.versionAfter) {
        return Finding{finding, "after " + call +
                                    " during doUpdate, which returned 0, getActiveVersion told " +
                                    quote(told["version"].asString())};
    }
    return std::nullopt;
}
} // namespace

void updateUnderNotices(Supervisor& supervisor, Report& report)
{
    constexpr int kTimes = 3;         // where the clock is fast, a notice may miss the moment
    constexpr int kWaits = 2;         // of these: a busy PC may keep one from its processor for as long
    constexpr double kMostOfIt = 0.5; // of the update
    int waits = 0;
    if (!supervisor.job().isRepeatable) {
        return;
    }
    for (int time = 0; time < kTimes; ++time) {
        Machine machine;
        const Session session = supervisor.run(machine, updateWithNotices);
        report.add(session.findings);
        const std::optional<Finding> seen =
            judgeDisturbed(session, supervisor.job(), FindingId::NoticeDisturbsUpdate, "allUpdateDone");
        if (session.death) {
            supervisor.avoid(session);
        }
        if (seen) {
            return report.add(*seen);
        }
        waits += session.told["noticeWaited"].asDouble() > kMostOfIt ? 1 : 0;
        if (waits == kWaits) {
            return report.add({FindingId::NoticeDisturbsUpdate,
                               "allUpdateDone during doUpdate waited until that was over"});
        }
        if (!session.told.isMember("update")) {
            return; // there is no allUpdateDone
        }
    }
}

void updateUnderQuestions(Supervisor& supervisor, Report& report)
{
    constexpr int kTimes = 2; // where the clock is fast, a question may miss the moment
    const Job& job = supervisor.job();
    for (int time = 0; time < kTimes && job.isRepeatable; ++time) {
        Machine machine;
        const Session session =
            supervisor.run(machine,
                           [](Worker& worker) {
                               if (!worker.load()) {
                                   return;
                               }
                               const Worker::Update update = {worker.job().image, worker.job().checksum,
                                                              false, "with questions"};
                               worker.setContext(worker.job().caller, "");
                               tellReturned(worker, "update", worker.updateUnderQuestions(update));
                               tellVersion(worker, "after an update with questions");
                           },
                           {true});
        report.add(session.findings);
        if (session.death) {
            supervisor.avoid(session);
        }
        const int error = session.told["updateError"].asInt();
        const bool isPolite = session.told["update"].asInt() != 0 && (error == EBUSY || error == EAGAIN);
        const std::optional<Finding> seen = judgeDisturbed(session, job, FindingId::QuestionDisturbsUpdate,
                                                           "getActiveVersion or checkVersion");
        if (seen && !isPolite) {
            return report.add(*seen);
        }
        if (!job.holders.empty() && !isPolite && !isHeld(machine, imageOf(job), job.holders)) {
            return report.add(
                {FindingId::QuestionDisturbsUpdate,
                 "after getActiveVersion or checkVersion during doUpdate, which returned 0, the "
                 "hardware does not hold the image"});
        }
    }
}

// ---- What must be refused ----

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

// The old firmware must still be told, in the same process and after a new start.
void judgeOldFirmware(Supervisor& supervisor, Machine& machine, const Session& session,
                      const std::string& what, Report& report)
{
    const std::string before = session.told["before"].asString();
    if (before.empty() || !supervisor.job().isVersionTold || session.death) {
        return;
    }
    const Session again = lookAgain(supervisor, machine);
    for (const Session* look : {&session, &again}) {
        if (!look->told.isMember("version") || look->told["version"].asString() != before) {
            report.add(
                {FindingId::OldFirmwareGone,
                 "after " + what + ", the version is " +
                     (look->told.isMember("version") ? quote(look->told["version"].asString()) : "not told") +
                     " instead of " + quote(before)});
            return;
        }
    }
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
} // namespace

// The path that is given counts, and nothing else; it may be longer than usual.
constexpr std::size_t kLongName = 150;

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

// ---- Data in memory ----

namespace
{
struct Data {
    std::string what;
    std::string bytes;
    int length;
    bool isImpossible; // else only to be survived
};

std::vector<Data> impossibleData(const Job& job)
{
    std::vector<Data> all = {{"64 bytes too few", "", -64, true},
                             {"one byte too few", "", -1, true},
                             {"no data", "", 0, true},
                             {"one byte", noise(1), 1, true},
                             {"noise", noise(4096), 4096, true}};
    if (!job.hasImage()) {
        return all;
    }
    std::string image = common::readWhole(job.image);
    image.resize(image.size() / 2); // a size inside it points behind its end
    const int length = static_cast<int>(image.size());
    all.push_back({"the image's first half", std::move(image), length, false});
    return all;
}

// Whatever a crash is due to, with impossible data it is that; but reading behind given data is worse.
Finding explainDeath(const Session& session, const Data& data)
{
    const bool isUnsurvived = session.wasCrash && entryPointOf(session.lastCall) == "doUpdate_decryption" &&
                              data.isImpossible && !(session.wasGuardHit && data.length > 0);
    return isUnsurvived ? Finding{FindingId::ImpossibleDataAccepted, session.death->detail} : *session.death;
}

void tryData(Supervisor& supervisor, const Data& data, Report& report)
{
    constexpr int kTimes = 4;
    Machine machine;
    const Session session = supervisor.run(machine, [&](Worker& worker) {
        if (!worker.load() || !worker.has("doUpdate_decryption")) {
            return;
        }
        worker.setContext(TARNWICK_CONTROL_CALLER_ENCRYPTED_IMAGE, "");
        if (const auto version = worker.activeVersion("before a refused update")) {
            worker.tell("before", *version);
        }
        worker.repeat("doUpdate_decryption", data.isImpossible ? kTimes : 1, [&] {
            const auto returned = worker.decrypt(data.bytes, data.length, data.what);
            if (returned) {
                worker.tell("result", returned->result);
                worker.tell("error", returned->error);
            }
            return returned && returned->result != 0;
        });
        tellVersion(worker, "after a refused update");
    });
    const std::string what = "doUpdate_decryption(" + data.what + ")";
    for (const Finding& finding : session.findings) {
        if (finding.id != FindingId::QuestionFailed) {
            report.add(finding);
        }
    }
    if (session.death) {
        report.add(explainDeath(session, data));
    }
    if (session.death || !session.told.isMember("result") || !data.isImpossible) {
        return;
    }
    if (session.told["result"].asInt() == 0) {
        report.add({FindingId::ImpossibleDataAccepted, what + " returned 0"});
        return;
    }
    if (session.told["error"].asInt() == 0) {
        report.add({FindingId::SilentFailure,
                    what + " returned " + session.told["result"].asString() + " and left errno 0"});
    }
    judgeOldFirmware(supervisor, machine, session, what, report);
}
// Beginnings of the image, and its head with numbers that are too large: to be survived.
std::vector<std::string> oddData(const std::string& image)
{
    constexpr std::size_t kLengths[] = {2,  4,  8,   15,  16,  31,  32,  48,  63,
                                        64, 65, 100, 127, 128, 200, 256, 512, 1024};
    constexpr std::size_t kHead = 64;
    constexpr std::size_t kNumber = 4;
    std::vector<std::string> all;
    for (const std::size_t length : kLengths) {
        if (length < image.size()) {
            all.push_back(image.substr(0, length));
        }
    }
    for (std::size_t at = 0; at + kNumber <= std::min(kHead, image.size()); at += kNumber) {
        std::string changed = image.substr(0, std::min<std::size_t>(image.size(), 65536));
        changed.replace(at, kNumber, kNumber, '\xff');
        all.push_back(std::move(changed));
    }
    return all;
}

void tryOddData(Supervisor& supervisor, Report& report)
{
    Machine machine;
    const std::string image = common::readWhole(supervisor.job().image);
    const Session session = supervisor.run(machine, [&](Worker& worker) {
        if (!worker.load() || !worker.has("doUpdate_decryption")) {
            return;
        }
        const HardwareCopy original;
        worker.setContext(TARNWICK_CONTROL_CALLER_ENCRYPTED_IMAGE, "");
        for (const std::string& data : oddData(image)) {
            const std::string what = data.size() < 65 || data.compare(0, 64, image, 0, 64) == 0
                                         ? "the image's first " + std::to_string(data.size()) + " bytes"
                                         : "the image with a large number in its head";
            const auto returned = worker.decrypt(data, static_cast<int>(data.size()), what);
            if (!returned) {
                return;
            }
            requireCause(worker, returned, "doUpdate_decryption(" + what + ")");
            if (returned->result == 0) {
                original.putBack();
            }
        }
    });
    report.add(session.findings);
    if (session.death) {
        report.add(*session.death);
    }
}

constexpr const char* kSpoiltInMemory = "the image, of which a byte is written wrong";

// Whether a write that goes wrong is noticed here, too: in the middle, and the last one.
void decryptOnWornHardware(Worker& worker, const std::string& image)
{
    const Job& job = worker.job();
    if (job.faults.middleWrite == 0) {
        return;
    }
    const HardwareCopy original;
    bool isUnnoticed = false;
    for (const unsigned int write : {job.faults.middleWrite, job.faults.endWrite}) {
        worker.setContext(TARNWICK_CONTROL_CALLER_ENCRYPTED_IMAGE, "");
        const auto returned = worker.decryptWithSpoiltWrite(write, image, kSpoiltInMemory);
        requireCause(worker, returned, std::string("doUpdate_decryption(") + kSpoiltInMemory + ")");
        isUnnoticed = isUnnoticed || (returned && returned->result == 0 && !job.holders.empty() &&
                                      !isHeld("/", image, job.holders));
        original.putBack();
    }
    worker.tell("unnoticed", isUnnoticed);
}

void decryptTwice(Worker& worker, const std::string& image)
{
    if (!worker.load() || !worker.has("doUpdate_decryption")) {
        return;
    }
    decryptOnWornHardware(worker, image);
    worker.setContext(TARNWICK_CONTROL_CALLER_ENCRYPTED_IMAGE, "");
    tellReturned(worker, "update", worker.decrypt(image, static_cast<int>(image.size()), "the image"));
    tellVersion(worker, "after an update from memory");
}

// Of the session's last update alone.
Writes lastOf(const Writes& all)
{
    Writes last;
    std::copy_if(all.all.begin(), all.all.end(), std::back_inserter(last.all),
                 [&](const SeenWrite& write) { return write.update == all.all.back().update; });
    return last;
}

// The same bytes as in the file must come to the same.
void updateFromMemory(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    if (!job.isRepeatable) {
        return;
    }
    Machine machine;
    const std::string image = imageOf(job);
    const Session session =
        supervisor.run(machine, [&](Worker& worker) { decryptTwice(worker, image); }, {true});
    report.add(session.findings);
    const Json::Value& told = session.told;
    const std::string call = "doUpdate_decryption(the image)";
    if (session.death) {
        report.add(*session.death);
    }
    if (session.death || !told.isMember("update")) {
        return;
    }
    if (told["unnoticed"].asBool() && session.spoilt) {
        report.add(
            {FindingId::NotReadBack, std::string("doUpdate_decryption(") + kSpoiltInMemory + ") returned 0"});
    }
    const int error = told["updateError"].asInt();
    if (told["update"].asInt() != 0) {
        const bool isLeftOut = error == ENOTSUP || error == ENOSYS; // it says that it does not do this
        if (session.spoilt) { // it has begun to write the same image before
            report.add({FindingId::NoUpdateAfterRefusal,
                        call + " after one in which a write went wrong" + describe(told, "update")});
        } else if (!isLeftOut) {
            report.add({FindingId::MemoryImageRefused, call + describe(told, "update")});
        }
    } else if (told.isMember("version") && told["version"].asString() != job.versionAfter) {
        report.add({FindingId::ImageNotWritten,
                    call + " returned 0, and getActiveVersion told " + quote(told["version"].asString())});
    } else if (!job.holders.empty() && !isHeld(machine, image, job.holders)) {
        report.add(
            {FindingId::ImageNotWritten, call + " returned 0, and the hardware does not hold the image"});
    } else {
        const std::string where = "in doUpdate_decryption ";
        const Writes writes = lastOf(session.writes);
        Report flushes;
        judgeFlushes(writes, machine, flushes);
        for (const auto& [id, details] : flushes.findings) {
            report.add({id, where + details.front()});
        }
        if (flushes.findings.empty() && !report.has(FindingId::LastNotFlushed)) {
            judgeEnd(supervisor, machine, writes, told["version"].asString(), where, report);
        }
    }
}
} // namespace

void refuseData(Supervisor& supervisor, Report& report)
{
    if (supervisor.job().isExternal) {
        return;
    }
    for (const Data& data : impossibleData(supervisor.job())) {
        tryData(supervisor, data, report);
    }
    if (supervisor.job().hasImage()) {
        tryOddData(supervisor, report);
        updateFromMemory(supervisor, report);
    }
}
} // namespace fwmod::examiner
