// Updates while the library is asked and told other things.
#include <cerrno>
#include <optional>

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
} // namespace fwmod::examiner
