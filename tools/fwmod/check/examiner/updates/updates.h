// Updates without a power cut: a sound image at the real pace, images that must be refused, and data in
// memory that cannot be right.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_UPDATES_UPDATES_H
#define TOOLS_FWMOD_CHECK_EXAMINER_UPDATES_UPDATES_H

#include "tools/fwmod/check/examiner/questions.h"
#include "tools/fwmod/check/examiner/supervisor.h"
#include "tools/fwmod/check/protocol/report.h"

namespace fwmod::examiner
{

// What the power cuts are compared with.
struct GoodUpdate {
    bool isAnswered = false; // doUpdate returned
    bool isUsable = false;   // it worked, and its writes were seen
    Writes writes;
    std::string before; // versions
    std::string after;
};

GoodUpdate updateOnce(Supervisor& supervisor, const Answers& answers, Report& report);

// Several updates in one process: does each lose something?
void updateAgain(Supervisor& supervisor, Report& report);

// Updates one after the other in one process: after a refusal, and of hardware that was set back.
void updateInOneProcess(Supervisor& supervisor, Report& report);

// The notice that the pass is over, while a write is at work.
void updateUnderNotices(Supervisor& supervisor, Report& report);

// An image of which every read fails.
void updateUnreadImage(Supervisor& supervisor, Report& report);

// Questions from another thread, while a write is at work: as after a time-out.
void updateUnderQuestions(Supervisor& supervisor, Report& report);

// The image at another path, where the usual one has a damaged copy.
void updateFromElsewhere(Supervisor& supervisor, Report& report);

void refuseImages(Supervisor& supervisor, Report& report);
void refuseData(Supervisor& supervisor, Report& report);

// What a session tells about the installed version: "version" and, when one is offered, "verdict". For
// scripts.
struct Told {
    std::optional<std::string> version;
    std::optional<int> verdict;
};
Told tellVersion(Worker& worker, const std::string& where);

} // namespace fwmod::examiner

#endif
