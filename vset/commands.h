// The subcommands of `vset` that look into a set and make things happen to it, over the set's own bus.
#pragma once

#include <CLI/CLI.hpp>

// Adds them to `app`. Their callbacks throw a CLI::ParseError for wrong use, and any other std::exception,
// with a text for the person at the terminal, for a failure.
void addControlCommands(CLI::App& app);
