// The commands of fwctl: one file each, listed in the table of main.cpp.
//
// A command declares its options on the given CLI11 app and returns what to do once they are parsed. That
// function returns an exit status, or throws: WrongUse ends with kWrongUse, Failure with kFailed,
// NoSuchModule with kNoSuchModule. Every text says what to do next.
#ifndef FWCTL_COMMAND_H
#define FWCTL_COMMAND_H

#include <CLI/CLI.hpp>

#include <functional>
#include <stdexcept>
#include <string>

// Scripts rely on these numbers; fwctl.1 and --help list them.
enum ExitStatus {
    kDone = 0,         // done; why: pending; doctor: nothing found, or all of it mended
    kFailed = 1,       // it could not be done
    kWrongUse = 2,     // of the command line
    kNothingToDo = 3,  // why: not pending; check, update, usb: nothing newer
    kNoSuchModule = 4, // no control library of that name
    kFindings = 5,     // doctor: something is left to be mended
    kTimedOut = 6,     // update: took longer than its expected time; it was waited for nevertheless
};

using Run = std::function<int()>;

struct Command {
    const char* name;
    const char* summary; // one line for "fwctl --help"
    Run (*define)(CLI::App& app);
};

Run defineList(CLI::App& app);
Run defineWhy(CLI::App& app);
Run defineCheck(CLI::App& app);
Run defineUpdate(CLI::App& app);
Run defineUsb(CLI::App& app);
Run defineWatch(CLI::App& app);
Run defineDoctor(CLI::App& app);

// The arguments contradict each other or make no sense.
struct WrongUse : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The arguments are right, but it cannot be done.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct NoSuchModule : std::runtime_error {
    explicit NoSuchModule(const std::string& name)
        : std::runtime_error("no module is called " + name + ": \"fwctl list\" shows the names")
    {
    }
};

#endif
