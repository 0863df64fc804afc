// The calls of each service as the daemon makes them, once: for trials that make them again and again, on
// many threads, or beside something else. What was right the first time has to be right each time.
#ifndef PLATFORM_CHECK_TRIALS_CALLS_ONCE_H
#define PLATFORM_CHECK_TRIALS_CALLS_ONCE_H

#include "platform/check/trials/trial.h"

namespace platformcheck
{

void settingsOnce(Trial& trial);
void subscriptionOnce(Trial& trial);
void notificationOnce(Trial& trial); // its subscription stands for as long as the process
void powerOnce(Trial& trial);
void powerEventsOnce(Trial& trial);
void flagsOnce(Trial& trial);
void watchdogOnce(Trial& trial);
void propertyOnce(Trial& trial);
void packageOnce(Trial& trial);
void launchOnce(Trial& trial);
void mountOnce(Trial& trial);   // refused ones
void mountedOnce(Trial& trial); // and unmounted again
void platformLogOnce(Trial& trial);
void traceLogOnce(Trial& trial);

} // namespace platformcheck

#endif
