// The commands of fwmod: one file each, listed in the table of main.cpp.
#ifndef FWMOD_COMMAND_H
#define FWMOD_COMMAND_H

#include "command-line.h"

Run defineNew(CLI::App& app);
Run defineCrc(CLI::App& app);
Run defineInfo(CLI::App& app);
Run definePackage(CLI::App& app);
Run defineUsb(CLI::App& app);
Run defineInspect(CLI::App& app);
Run defineDiff(CLI::App& app);
Run defineTry(CLI::App& app);
Run defineCheck(CLI::App& app);

#endif
