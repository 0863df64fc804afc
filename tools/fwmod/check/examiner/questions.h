// Loading the library, and asking it everything that the daemon asks before an update.
#ifndef TOOLS_FWMOD_CHECK_EXAMINER_QUESTIONS_H
#define TOOLS_FWMOD_CHECK_EXAMINER_QUESTIONS_H

#include "tools/fwmod/check/examiner/supervisor.h"
#include "tools/fwmod/check/protocol/report.h"

namespace fwmod::examiner
{

struct Answers {
    bool isLoaded = false;
    std::string identifier; // "" when there is no sound one
    std::string version;    // "" when not told
    bool isNewer = false;   // the offered version, in the library's words
};

// Goes on after a call that has ended the process, without that call.
Answers askQuestions(Supervisor& supervisor, Report& report);

// Offers versions around the installed one, to see that they are compared by their numbers. For scripts.
void askAboutOrder(Worker& worker, const std::string& installed);

} // namespace fwmod::examiner

#endif
