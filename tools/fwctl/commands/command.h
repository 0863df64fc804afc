// The commands of fwctl: one file each, listed in the table of main.cpp.
#ifndef TOOLS_FWCTL_COMMANDS_COMMAND_H
#define TOOLS_FWCTL_COMMANDS_COMMAND_H

#include "common/terminal/command-line.h"
#include "common/terminal/visible-text.h"

namespace fwctl
{

// Scripts rely on these numbers; fwctl.1 and --help list them.
enum ExitStatus {
    kDone = 0,                           // done; why: pending; doctor: nothing found, or all of it mended
    kFailed = common::kStatusFailed,     // it could not be done
    kWrongUse = common::kStatusWrongUse, // of the command line
    kNothingToDo = 3,                    // why: not pending; check, update, usb: nothing newer
    kNoSuchModule = 4,                   // no control library of that name
    kFindings = 5,                       // doctor: something is left to be mended
    kTimedOut = 6, // update: took longer than its expected time; it was waited for nevertheless
};

void defineList(common::CommandLine& command);
void defineWhy(common::CommandLine& command);
void defineCheck(common::CommandLine& command);
void defineUpdate(common::CommandLine& command);
void defineUsb(common::CommandLine& command);
void defineWatch(common::CommandLine& command);
void defineDoctor(common::CommandLine& command);

struct NoSuchModule : common::CommandError {
    explicit NoSuchModule(const std::string& name)
        : common::CommandError(kNoSuchModule, "no module is called " + common::inQuotes(name) +
                                                  ": \"fwctl list\" shows the names")
    {
    }
};

} // namespace fwctl

#endif
