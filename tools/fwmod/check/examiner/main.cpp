// control-examiner JOB measure|trials: examines a control library in a virtual set, for "fwmod check", which
// makes the set and the job. Writes to standard output what protocol/report.h has: progress, and at the end
// the report.
//
// measure: what depends on real time, questions and one update. trials: images that must be refused, and
// power cuts, which do not; the set's clock may be faster.
#include <cstdio>
#include <fstream>
#include <string>

#include "common/terminal/command-line.h"
#include "tools/fwmod/check/examiner/faulty-writes.h"
#include "tools/fwmod/check/examiner/lost-hardware.h"
#include "tools/fwmod/check/examiner/mapped-hardware.h"
#include "tools/fwmod/check/examiner/power-cuts.h"
#include "tools/fwmod/check/examiner/questions.h"
#include "tools/fwmod/check/examiner/updates.h"
#include "tools/fwmod/check/protocol/job.h"
#include "tools/fwmod/check/protocol/report.h"

namespace fwmod::examiner
{

namespace
{
// Whether an update has worked, and can be repeated and be judged by the version.
bool measureUpdate(Supervisor& supervisor, const Answers& answers, Report& report)
{
    const Job& job = supervisor.job();
    Measured& measured = report.measured;
    if (!answers.isNewer && job.version && answers.version == *job.version) {
        report.notes.emplace_back(
            "The hardware has the offered version already: doUpdate was not called. Give hardware "
            "with an older one (--hardware).");
        return false;
    }
    const GoodUpdate update = updateOnce(supervisor, answers, report);
    measured.isUpdatable = update.isUsable;
    measured.isRepeatable = update.isUsable && !report.has(FindingId::WrongVersionAfterwards) &&
                            !report.has(FindingId::InstalledIsNewer);
    measured.isUpdated = update.isAnswered;
    measured.bytes = update.writes.bytes;
    return measured.isRepeatable;
}

void measure(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    Measured& measured = report.measured;
    const Answers answers = askQuestions(supervisor, report);
    measured.isLoaded = answers.isLoaded;
    measured.identifier = answers.identifier;
    measured.versionBefore = answers.version;
    measured.isVersionTold = !answers.version.empty() && !report.has(FindingId::ChangingAnswer);
    measured.isOfferNewer = answers.isNewer;
    if (!answers.isLoaded) {
        return;
    }
    const bool isVersionThere = job.hasImage() && measureUpdate(supervisor, answers, report);
    askOfLostHardware(supervisor, answers, isVersionThere, report);
}

void tryHard(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    if (!job.isCutsOnly) {
        refuseData(supervisor, report);
        if (job.hasImage()) {
            refuseImages(supervisor, report);
            updateFromElsewhere(supervisor, report);
            updateAgain(supervisor, report);
            updateInOneProcess(supervisor, report);
            updateUnderNotices(supervisor, report);
            updateUnderQuestions(supervisor, report);
            updateAfterAnotherImage(supervisor, report);
            cutPowerTwice(supervisor, report);
            loseWhatSelects(supervisor, report);
            cutMappedHardware(supervisor, report);
            updateLostHardware(supervisor, report);
            updateFaultyHardware(supervisor, report);
        }
    }
    if (!job.cuts.empty()) {
        cutPower(supervisor, report);
    }
}

int examine(const char* jobFile, bool isTrial)
{
    const Job job = readJob(jobFile);
    makeMachineRoom(job.imageDirectory);
    Supervisor supervisor(job);
    Report report;
    (isTrial ? tryHard : measure)(supervisor, report);
    report.calls = supervisor.calls();
    report.suspects = supervisor.suspects();
    std::puts(lineOf(report).c_str());
    return 0;
}
} // namespace

} // namespace fwmod::examiner

namespace
{

// It mounts what it wants where it wants: not on a PC.
void requireSet()
{
    std::string first;
    std::getline(std::ifstream("/proc/1/comm"), first);
    if (first != "vset") {
        throw common::Failure("this is no virtual set: \"fwmod check\" starts me in one");
    }
}

} // namespace

int main(int argc, char** argv)
{
    common::CommandLine program("control-examiner",
                                "Examines a control library; \"fwmod check\" starts it in a set");
    std::string job;
    std::string part;
    program.text("JOB", job, "File that says what is to be examined").required();
    program.text("PART", part, "measure: what depends on real time; trials: what does not")
        .required()
        .oneOf({"measure", "trials"});
    program.onRun([&] {
        requireSet();
        return fwmod::examiner::examine(job.c_str(), part == "trials");
    });
    return program.main(argc, argv);
}
