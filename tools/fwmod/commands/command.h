// The commands of fwmod: one file each, listed in the table of main.cpp.
#ifndef TOOLS_FWMOD_COMMANDS_COMMAND_H
#define TOOLS_FWMOD_COMMANDS_COMMAND_H

#include "common/terminal/command-line.h"

namespace fwmod
{

void defineNew(common::CommandLine& command);
void defineCrc(common::CommandLine& command);
void defineInfo(common::CommandLine& command);
void definePackage(common::CommandLine& command);
void defineUsb(common::CommandLine& command);
void defineInspect(common::CommandLine& command);
void defineDiff(common::CommandLine& command);
void defineTry(common::CommandLine& command);
void defineCheck(common::CommandLine& command);

} // namespace fwmod

#endif
