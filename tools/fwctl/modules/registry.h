// The daemon's registry of modules, for the commands that act: in the child process of update-child.h.
#ifndef TOOLS_FWCTL_MODULES_REGISTRY_H
#define TOOLS_FWCTL_MODULES_REGISTRY_H

#include <json/json.h>
#include <string>

#include "src/src/fw-update-symbol-manager.h"
#include "tools/fwctl/turn/update-child.h"
#include "tools/fwctl/turn/update-monitor.h"

namespace fwctl
{

// The modules, with every call of theirs watched. Has the daemon's messages forwarded, and with `verbose`
// shown.
class Registry
{
public:
    // Loads every control library. One that crashes or hangs while it is loaded is found out beforehand, in a
    // child of its own, and named. Throws Failure.
    Registry(UpdateLink& link, bool verbose);

    FWUpdateSymbolManager& manager() { return manager_; }
    FWUpdateSymbol& find(const std::string& name); // throws NoSuchModule

    // While it is set, it hears what goes wrong in the libraries' calls.
    void follow(UpdateMonitor* monitor) { monitor_ = monitor; }

private:
    FWUpdateSymbolManager& manager_;
    std::atomic<UpdateMonitor*> monitor_{nullptr};
};

// What has become of the updates, for reportOutcomes().
Json::Value finishedOutcomes(UpdateMonitor& monitor);

// What modules told before an update of theirs, as examine() tells it, and the image source of the update
// (empty: none of those that it looks at).
struct Before {
    std::vector<Json::Value> modules;
    std::string source;
};

// Prints how the updates ended, as text or as one JSON array, and gives the exit status of it all. `told` is
// what runUpdate() gave; the versions that are installed now are asked for here. A library that reports
// success and tells the version of before, or none, has not updated anything.
int reportOutcomes(Json::Value told, const Before& before, bool json);

} // namespace fwctl

#endif
