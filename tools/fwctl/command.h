// The commands of fwctl: one file each, listed in the table of main.cpp.
#ifndef FWCTL_COMMAND_H
#define FWCTL_COMMAND_H

#include "command-line.h"

// Scripts rely on these numbers; fwctl.1 and --help list them.
enum ExitStatus {
    kDone = 0,                   // done; why: pending; doctor: nothing found, or all of it mended
    kFailed = kStatusFailed,     // it could not be done
    kWrongUse = kStatusWrongUse, // of the command line
    kNothingToDo = 3,            // why: not pending; check, update, usb: nothing newer
    kNoSuchModule = 4,           // no control library of that name
    kFindings = 5,               // doctor: something is left to be mended
    kTimedOut = 6,               // update: took longer than its expected time; it was waited for nevertheless
};

Run defineList(CLI::App& app);
Run defineWhy(CLI::App& app);
Run defineCheck(CLI::App& app);
Run defineUpdate(CLI::App& app);
Run defineUsb(CLI::App& app);
Run defineWatch(CLI::App& app);
Run defineDoctor(CLI::App& app);

struct NoSuchModule : CommandError {
    explicit NoSuchModule(const std::string& name)
        : CommandError(kNoSuchModule, "no module is called " + name + ": \"fwctl list\" shows the names")
    {
    }
};

#endif
