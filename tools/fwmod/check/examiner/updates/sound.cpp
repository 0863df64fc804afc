// One update with the offered image, at the real pace, and all that can be judged of it.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "tools/fwmod/check/examiner/faulty-writes.h"
#include "tools/fwmod/check/examiner/flush-order.h"
#include "tools/fwmod/check/examiner/machine/held-image.h"
#include "tools/fwmod/check/examiner/updates/updating.h"

namespace fwmod::examiner
{

namespace
{
constexpr double kSlowProgress = 1.0; // seconds
constexpr double kBlocked = 0.07;     // of a progress call that waits for a third of the update
constexpr double kMostWaited = 3;
constexpr double kExpectedMargin = 2; // times the measured duration
constexpr int kOddTime = 600;         // seconds: a longer update is a rare one
constexpr double kOddRatio = 700;     // of the expected time to the measured one
constexpr unsigned int kLittle = 20;  // percent at which no update ends
constexpr int kFewSamples = 15;       // one every 10 ms: a shorter update need not be seen to rise
constexpr int kSomeSamples = 30;      // of a progress that has moved
constexpr int kManySamples = 60;      // at one stage that is passed: a busy PC may have looked at no other

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
    const double ownTime =
        std::max(duration - session.watchDelay, 0.0); // on a busy one the watch takes its own
    const int samples = std::min(progress["samples"].asInt(), static_cast<int>(ownTime / kLook) + 1);
    const int failures = progress["failures"].asInt();
    const unsigned int last = progress["last"].asUInt();
    const unsigned int after = session.told["progressAfter"].asUInt();
    const bool isStage = last > 0 && last < 100 && after != last;
    if (failures > samples) {
        report.add({FindingId::NoProgress, "getUpdateProgress failed at " + std::to_string(failures) +
                                               " of " + std::to_string(failures + samples) +
                                               " looks during the update"});
    } else if (samples >= (isStage ? kManySamples : kFewSamples) && progress["values"].asInt() == 1) {
        report.add({FindingId::NoProgress, "getUpdateProgress told " + progress["last"].asString() +
                                               " at each of " + std::to_string(samples) +
                                               " looks during the update"});
    }
    const unsigned int highest = std::max(progress["highest"].asUInt(), after);
    const bool hasMoved = progress["values"].asInt() > 1 || after != last;
    const bool isAtItsEnd = after > 0 && after == highest; // not set back, so no look can have missed more
    if (hasMoved && highest < kLittle && (isAtItsEnd || samples >= kSomeSamples)) {
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
    Watch untilItWrites = {true}; // a flush of what is there is no writing
    untilItWrites.cutsAtContent = true;
    return supervisor.run(machine, script, untilItWrites);
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

// An update that has not worked may have waited for the notice that the pass is over, which comes after it.
void judgeWaiting(Supervisor& supervisor, Report& report)
{
    Machine machine;
    const Session session = supervisor.run(machine, [](Worker& worker) {
        if (worker.load() && worker.has("allUpdateDone")) {
            worker.setContext(worker.job().caller, "");
            tellReturned(worker, "update", worker.updateUnderNotices(soundUpdate(worker)));
        }
    });
    if (session.told.isMember("update") && session.told["update"].asInt() == 0) {
        report.add({FindingId::NoticeDisturbsUpdate,
                    "doUpdate returns 0 only when allUpdateDone is called meanwhile"});
    }
}

// As far as the image is kept as it is.
void judgeContent(const Machine& machine, const Job& job, Report& report)
{
    const std::string image = imageOf(job);
    const Holding& holding = report.measured.holding = holdingOf(machine, image);
    const auto missing = holding.files.empty() && !image.empty()
                             ? missingAtEnd(machine, image, job.version.value_or(""))
                             : std::nullopt;
    if (missing) {
        report.add({FindingId::EndMissing, "the last " + std::to_string(*missing) + " of the image's " +
                                               std::to_string(image.size()) +
                                               " bytes are not on the hardware"});
    }
}

// How it came about, and what it has left on the hardware.
void judgeWork(const Session& session, const Machine& machine, const Job& job, Report& report)
{
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
    if (session.wasHang || session.told["result"].asInt() != 0) {
        judgeWaiting(supervisor, report);
    }
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
    judgeWork(session, machine, job, report);
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
} // namespace fwmod::examiner
