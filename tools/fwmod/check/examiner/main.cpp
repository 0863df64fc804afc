// control-examiner JOB measure|trials: examines a control library in a virtual set, for "fwmod check", which
// makes the set and the job. Writes JSON to standard output, one object a line: {"progress": ...}, and at the
// end the report.
//
// measure: what depends on real time, questions and one update. trials: images that must be refused, and
// power cuts, which do not; the set's clock may be faster.
#include "tools/fwmod/check/examiner/job.h"
#include "tools/fwmod/check/examiner/power-cuts.h"
#include "tools/fwmod/check/examiner/questions.h"
#include "tools/fwmod/check/examiner/report.h"
#include "tools/fwmod/check/examiner/updates.h"

#include <cstdio>
#include <cstring>
#include <exception>

namespace examiner
{

namespace
{
Json::Value suspectsOf(const Supervisor& supervisor)
{
    Json::Value list = Json::arrayValue;
    for (const std::string& call : supervisor.suspects())
        list.append(call);
    return list;
}

void measure(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    const Answers answers = askQuestions(supervisor, report);
    report.measure("loaded", answers.isLoaded);
    report.measure("identifier", answers.identifier);
    report.measure("versionBefore", answers.version);
    report.measure("versionTold", !answers.version.empty() && !report.has(210));
    report.measure("offerNewer", answers.isNewer);
    if (!answers.isLoaded || !job.hasImage)
        return;
    if (!answers.isNewer && job.version && answers.version == *job.version) {
        report.note("The hardware has the offered version already: doUpdate was not called. Give hardware "
                    "with an older one (--hardware).");
        return;
    }
    const GoodUpdate update = updateOnce(supervisor, answers, report);
    report.measure("updatable", update.isUsable);
    report.measure("updated", update.isAnswered);
    report.measure("bytes", Json::UInt64(update.writes.bytes));
}

void tryHard(Supervisor& supervisor, Report& report)
{
    const Job& job = supervisor.job();
    if (!job.cutsOnly) {
        refuseData(supervisor, report);
        if (job.hasImage) {
            refuseImages(supervisor, report);
            updateAgain(supervisor, report);
        }
    }
    if (!job.cuts.empty())
        cutPower(supervisor, report);
}

int examine(const char* jobFile, bool isTrial)
{
    const Job job = readJob(jobFile);
    makeMachineRoom(job.imageDirectory);
    Supervisor supervisor(job);
    Report report;
    (isTrial ? tryHard : measure)(supervisor, report);
    Json::Value result = report.toJson();
    result["calls"] = supervisor.calls();
    result["suspects"] = suspectsOf(supervisor);
    printLine(result);
    return 0;
}
} // namespace

} // namespace examiner

int main(int argc, char** argv)
{
    if (argc != 3 || (std::strcmp(argv[2], "measure") != 0 && std::strcmp(argv[2], "trials") != 0)) {
        std::fprintf(stderr,
                     "usage: control-examiner JOB measure|trials (\"fwmod check\" starts it in a set)\n");
        return 2;
    }
    try {
        return examiner::examine(argv[1], std::strcmp(argv[2], "trials") == 0);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "control-examiner: %s\n", error.what());
        return 1;
    }
}
