// `vset run`: the process outside the set. It holds the set's lock and loop slot, waits for PID 1, starts the
// set again after a reboot, and leaves nothing behind.
#ifndef VSET_LAUNCHER_LEADER_H
#define VSET_LAUNCHER_LEADER_H

#include <optional>
#include <string>
#include <vector>

#include "vset/launcher/system.h"

namespace vset
{

struct RunOptions {
    std::optional<fs::path> set; // none: a temporary one
    bool rootless = false;
    std::vector<fs::path> binds;
    unsigned int loopNodes = 8;
    std::optional<double> clockRate;
    std::optional<unsigned int> cutAtWrite; // see InitPlan
    std::vector<std::string> command;       // empty: the television
};

// Returns the exit status of `vset run`: the command's own, 0 after a power-off, 3 after a power cut. Throws
// Error and common::WrongUse.
int runSet(const RunOptions& options);

} // namespace vset

#endif
