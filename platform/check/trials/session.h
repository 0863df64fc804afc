// Refusals that may have a reason of their own: those that come of a service's environment have none.
#ifndef PLATFORM_CHECK_TRIALS_SESSION_H
#define PLATFORM_CHECK_TRIALS_SESSION_H

#include "platform/check/trials/trial.h"

namespace platformcheck
{

// A call was refused. It is made by the trial `asker`, each time in a process of its own, as a service makes
// it and with the variables of somebody's session. True, and found, when these decide.
bool judgeRefusal(Trial& trial, const char* asker, const char* call);

// By the asker, what has come of its call.
void tellTaken(const Trial& trial, bool isTaken);

} // namespace platformcheck

#endif
