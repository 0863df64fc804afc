// The subcommands of `vset` for what a person does at the television: the same as the page in the browser.
#pragma once

#include <CLI/CLI.hpp>

// Adds them to `app`. Their callbacks throw as those of addControlCommands do.
void addConsoleCommands(CLI::App& app);
