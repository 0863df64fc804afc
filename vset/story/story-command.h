// The subcommand `vset story`.
#pragma once

#include <CLI/CLI.hpp>

namespace vset
{

void addStoryCommand(CLI::App& app);

} // namespace vset
