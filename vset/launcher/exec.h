// `vset exec`: one more command in a running set.
#pragma once

#include "launcher/system.h"

#include <string>
#include <vector>

namespace vset
{

// Ends this process with the command's exit status. Throws Error when the set does not run.
[[noreturn]] void executeInSet(const fs::path& set, const std::vector<std::string>& command);

} // namespace vset
