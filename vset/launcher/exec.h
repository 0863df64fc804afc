// `vset exec`: one more command in a running set.
#ifndef VSET_LAUNCHER_EXEC_H
#define VSET_LAUNCHER_EXEC_H

#include <string>
#include <vector>

#include "vset/launcher/system.h"

namespace vset
{

// Ends this process with the command's exit status. Throws Error when the set does not run.
[[noreturn]] void executeInSet(const fs::path& set, const std::vector<std::string>& command);

} // namespace vset

#endif
