// Updates while the library is asked and told other things.
#include <cerrno>
#include <optional>

#include "tools/fwmod/check/examiner/flush-order.h"
#include "tools/fwmod/check/examiner/machine/held-image.h"
#include "tools/fwmod/check/examiner/updates/updating.h"

namespace fwmod::examiner
{

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

// One notice alone, as when the set is switched off: what it holds, nobody releases any more.
void updateWithNotice(Worker& worker, unsigned int write)
{
    if (!worker.load() || !worker.has("allUpdateDone")) {
        return;
    }
    const Worker::Update update = {worker.job().image, worker.job().checksum, false, "with a notice"};
    worker.setContext(worker.job().caller, "");
    tellReturned(worker, "update", worker.updateUnderNotice(write, update));
    tellVersion(worker, "after an update with a notice");
}

// Nothing when the update has not minded.
std::optional<Finding> judgeDisturbed(const Session& session, const Job& job, FindingId finding,
                                      const std::string& call)
{
    const Json::Value& told = session.told;
    if (session.death && finding == FindingId::QuestionDisturbsUpdate) {
        return session.death; // the question itself may have ended
    }
    if (session.death) {
        return Finding{finding, "with " + call + " during doUpdate, " + session.death->detail};
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

namespace
{
// What the notice has made the update leave out.
std::optional<Finding> judgeHurried(const Session& session, const Machine& machine, const Job& job)
{
    const std::string what = "after allUpdateDone during doUpdate, which returned 0, ";
    if (job.holding.isKnown() && !isHeld(machine, imageOf(job), job.holding)) {
        return Finding{FindingId::NoticeDisturbsUpdate, what + "the hardware does not hold the image"};
    }
    Report flushes;
    judgeFlushes(session.writes, machine, flushes);
    return flushes.findings.empty() ? std::nullopt
                                    : std::optional(Finding{FindingId::NoticeDisturbsUpdate,
                                                            what + flushes.findings.begin()->second.front()});
}

void updateUnderNotice(Supervisor& supervisor, unsigned int write, Report& report)
{
    const Job& job = supervisor.job();
    Machine machine;
    const Session session =
        supervisor.run(machine, [write](Worker& worker) { updateWithNotice(worker, write); }, {true});
    report.add(session.findings);
    std::optional<Finding> seen =
        judgeDisturbed(session, job, FindingId::NoticeDisturbsUpdate, "allUpdateDone");
    if (session.death) {
        report.add(*session.death);
        supervisor.avoid(session);
    } else if (!seen && session.told.isMember("update") && !report.has(FindingId::NotFlushed)) {
        seen = judgeHurried(session, machine, job);
    }
    if (seen) {
        report.add(*seen);
    }
    constexpr double kMost = 0.75; // of the writes: at the end it may be 100 by itself
    const unsigned int jump = session.told["noticeJump"].asUInt();
    if (session.told.isMember("noticeJump") && jump < kMost * session.writes.during) {
        report.add({FindingId::FallingProgress,
                    "getUpdateProgress rose to 100 at allUpdateDone during doUpdate, at write " +
                        std::to_string(jump) + " of " + std::to_string(session.writes.during)});
    }
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
            report.add(*session.death);
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
    for (const unsigned int write : {1U, supervisor.job().faults.middleWrite}) {
        if (write != 0 && !report.has(FindingId::NoticeDisturbsUpdate)) {
            updateUnderNotice(supervisor, write, report);
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
        const bool isDone = session.told.isMember("update") && !isPolite;
        if (job.holding.isKnown() && isDone && !isHeld(machine, imageOf(job), job.holding)) {
            return report.add(
                {FindingId::QuestionDisturbsUpdate,
                 "after getActiveVersion or checkVersion during doUpdate, which returned 0, the "
                 "hardware does not hold the image"});
        }
    }
}
} // namespace fwmod::examiner
