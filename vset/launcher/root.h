// The set's private root, composed of the set's own directories and read-only parts of the PC.
#ifndef VSET_LAUNCHER_ROOT_H
#define VSET_LAUNCHER_ROOT_H

#include <vector>

#include "vset/launcher/set-directory.h"

namespace vset
{

struct RootPlan {
    SetDirectory set;
    bool rootless = false;
    std::vector<fs::path> binds; // directories of the PC that are seen at their own paths; absolute
    unsigned int loopNodes = 8;  // /dev/loop0 ... present at start
    unsigned int loopBase = 0;   // minor number of the set's loop0; meaningless when rootless
    bool clock = false;          // put the clock page in place
};

// Where the set sees its hidden loop control node.
constexpr const char* kLoopControlPath = "/dev/.vset/loop-control";

// Canonical directories without those that lie in another one of the list. Throws common::WrongUse for one
// that cannot be bound (not a directory, or a place that the set has as its own).
std::vector<fs::path> bindList(const std::vector<fs::path>& wanted, const std::vector<fs::path>& builtIn);

// Builds the root and moves into it; to be called by PID 1 in its own namespaces. Throws Error.
void composeRoot(const RootPlan& plan);

} // namespace vset

#endif
