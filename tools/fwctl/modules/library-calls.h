// Puts a watcher before each entry point of a loaded module: the parent process then knows which call of
// which library crashed or hangs (isolated.h), and no exception of a library goes unnoticed.
#ifndef TOOLS_FWCTL_MODULES_LIBRARY_CALLS_H
#define TOOLS_FWCTL_MODULES_LIBRARY_CALLS_H

#include <functional>
#include <string>

#include "tools/fwctl/modules/isolated.h"

class FWUpdateSymbol;

namespace fwctl
{

// Told on the thread of the call what its result hides: "the control library throws in doUpdate: no chip",
// "setContext returns -1".
using CallReport = std::function<void(const std::string& text)>;

// After loadSymbol(). `telling` and what `onTrouble` refers to must outlive every call of the module. An
// exception goes on as one with that text, so that a caller who catches it can tell.
void watchCalls(FWUpdateSymbol& module, Telling& telling, const CallReport& onTrouble = {});

} // namespace fwctl

#endif
