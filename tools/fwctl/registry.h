// The daemon's registry of modules in this process, for the commands that act.
#ifndef FWCTL_REGISTRY_H
#define FWCTL_REGISTRY_H

#include "update-monitor.h"

#include "fw-update-symbol-manager.h"

#include <string>
#include <vector>

// Becomes the daemon's user, has the daemon's messages forwarded, and loads every control library. A library
// that crashes or hangs while it is loaded is found out beforehand, in a child. Throws Failure.
FWUpdateSymbolManager& openRegistry(bool verbose);

// Prints how the updates ended, as text or as one JSON array, and gives the exit status of it all.
int reportOutcomes(const std::vector<UpdateOutcome>& outcomes, bool json);

#endif
