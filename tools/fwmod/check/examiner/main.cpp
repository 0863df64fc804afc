// control-examiner JOB measure|trials: examines a control library in a virtual set, for "fwmod check", which
// makes the set and the job. Writes to standard output what protocol/report.h has: progress, and at the end
// the report.
//
// measure: what depends on real time, questions and one update. trials: images that must be refused, and
// power cuts, which do not; the set's clock may be faster.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "common/terminal/command-line.h"
#include "tools/fwmod/check/examiner/faulty-writes.h"
#include "tools/fwmod/check/examiner/lanes.h"
#include "tools/fwmod/check/examiner/lost-hardware.h"
#include "tools/fwmod/check/examiner/mapped-hardware.h"
#include "tools/fwmod/check/examiner/power-cuts.h"
#include "tools/fwmod/check/examiner/questions.h"
#include "tools/fwmod/check/examiner/updates/updates.h"
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

void askAndUpdate(Supervisor& supervisor, Report& report)
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

Report measure(Supervisor& supervisor)
{
    Report report;
    askAndUpdate(supervisor, report);
    report.calls = supervisor.calls();
    report.suspects = supervisor.suspects();
    return report;
}

// ---- Trials ----

using Trial = void (*)(Supervisor&, Report&);

constexpr Trial kTrialsOfImages[] = {
    refuseImages,         updateFromElsewhere,     updateAgain,       updateInOneProcess, updateUnderNotices,
    updateUnderQuestions, updateAfterAnotherImage, cutPowerTwice,     loseWhatSelects,    cutMappedHardware,
    updateLostHardware,   updateFaultyHardware,    updateUnreadImage,
};

// One after the other: what has ended a session is not called again by those that follow.
void tryAll(Supervisor supervisor, const Lanes::Tell& tell)
{
    Report report;
    refuseData(supervisor, report);
    if (supervisor.job().hasImage()) {
        for (const Trial trial : kTrialsOfImages) {
            trial(supervisor, report);
        }
    }
    report.calls = supervisor.calls();
    report.suspects = supervisor.suspects();
    tell(lineOf(report));
}

void tellProgress(std::size_t done, std::size_t total)
{
    const auto percent = static_cast<unsigned int>(done * 100 / std::max<std::size_t>(total, 1));
    std::puts(lineOf(Progress{"refused images and power cuts", percent}).c_str());
    std::fflush(stdout);
}

// The trials beside the power cuts: neither needs what the other has seen.
Report tryHard(const Supervisor& supervisor)
{
    const Job& job = supervisor.job();
    Lanes lanes;
    if (!job.isCutsOnly) {
        lanes.start([&](const Lanes::Tell& tell) { tryAll(supervisor, tell); });
    }
    cutPower(supervisor, lanes);
    Report report;
    std::vector<CutTrial> cuts;
    lanes.finish([&](const std::string& line) {
        if (std::optional<CutTrial> cut = readCutTrial(line)) {
            cuts.push_back(*std::move(cut));
            tellProgress(cuts.size(), job.cuts.size());
        } else if (auto other = readLine(line)) {
            report = std::get<Report>(*std::move(other));
        }
    });
    report.cuts = std::move(cuts);
    return report;
}

int examine(const char* jobFile, bool isTrial)
{
    const Job job = readJob(jobFile);
    makeMachineRoom(job.imageDirectory);
    Supervisor supervisor(job);
    std::puts(lineOf(isTrial ? tryHard(supervisor) : measure(supervisor)).c_str());
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
