// The commands of fwmod: one file each, listed in the table of main.cpp.
//
// A command declares its options on the given CLI11 app and returns what to do once they are parsed. That
// function returns the exit status, or throws: WrongUse ends with status 2, Failure with 1. Every text says
// what to do next.
#ifndef FWMOD_COMMAND_H
#define FWMOD_COMMAND_H

#include <CLI/CLI.hpp>

#include <functional>
#include <stdexcept>
#include <string>

using Run = std::function<int()>;

struct Command {
    const char* name;
    const char* summary; // one line for "fwmod --help"
    Run (*define)(CLI::App& app);
};

Run defineNew(CLI::App& app);
Run defineCrc(CLI::App& app);
Run defineInfo(CLI::App& app);
Run definePackage(CLI::App& app);
Run defineUsb(CLI::App& app);
Run defineInspect(CLI::App& app);
Run defineDiff(CLI::App& app);
Run defineTry(CLI::App& app);
Run defineCheck(CLI::App& app);

// The arguments contradict each other or make no sense.
struct WrongUse : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The arguments are right, but it cannot be done.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

#endif
