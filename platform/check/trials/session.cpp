#include "platform/check/trials/session.h"

#include <fstream>

namespace platformcheck
{

namespace
{

std::filesystem::path traceOfTaken(const Trial& trial)
{
    return trial.options().work / "taken";
}

bool isTakenBy(Trial& trial, const char* asker, Trial::Environment environment)
{
    std::filesystem::remove(traceOfTaken(trial));
    trial.runBeside(asker, Trial::Loop::kRuns, environment);
    return std::filesystem::exists(traceOfTaken(trial));
}

} // namespace

bool judgeRefusal(Trial& trial, const char* asker, const char* call)
{
    for (int time = 0; time < 2; ++time) { // else what is taken now and then would seem to need it
        if (isTakenBy(trial, asker, Trial::Environment::kService) ||
            !isTakenBy(trial, asker, Trial::Environment::kSession)) {
            return false;
        }
    }
    trial.found(
        FindingId::SessionNeeded,
        std::string(call) +
            " is refused, and succeeds with HOME, USER and what else a session has in the environment");
    return true;
}

void tellTaken(const Trial& trial, bool isTaken)
{
    if (isTaken) {
        std::ofstream(traceOfTaken(trial)) << "taken\n";
    }
}

} // namespace platformcheck
