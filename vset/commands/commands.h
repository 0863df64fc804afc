// The subcommands of `vset`, one file for each group of them, listed in the table of program.cpp; main.cpp
// and vset-control.cpp say which program has which.
//
// What they throw has a text for the person at the terminal.
#ifndef VSET_COMMANDS_COMMANDS_H
#define VSET_COMMANDS_COMMANDS_H

#include <string>

#include "common/terminal/command-line.h"

namespace vset
{

// The argument that nearly all of them take first.
common::Option takeSet(common::CommandLine& command, std::string& set);

// put.cpp: what lies in it
void definePut(common::CommandLine& command);
// wait.cpp: what shall happen to it
void defineWait(common::CommandLine& command);
// "on", "standby" or a number up to 255, for an argument STATE.
int powerState(const std::string& text);

// set.cpp: the set itself
void defineNew(common::CommandLine& command);
void defineRun(common::CommandLine& command);
void defineExec(common::CommandLine& command);
void defineClock(common::CommandLine& command);
// platform.cpp: what its platform knows and does
void defineGet(common::CommandLine& command);
void defineSet(common::CommandLine& command);
void definePower(common::CommandLine& command);
void definePowerOff(common::CommandLine& command);
void defineReboot(common::CommandLine& command);
void defineFault(common::CommandLine& command);
void defineProperty(common::CommandLine& command);
void definePackages(common::CommandLine& command);
void defineReply(common::CommandLine& command);
// show.cpp
void defineShow(common::CommandLine& command);
// log.cpp: what was said, and what it means
void defineLog(common::CommandLine& command);
void defineStory(common::CommandLine& command);
// television.cpp: what a person does at the television; the same as the page in the browser
void defineConsole(common::CommandLine& command);
void defineModules(common::CommandLine& command);
void defineUi(common::CommandLine& command);
void defineUsb(common::CommandLine& command);
void defineMirroring(common::CommandLine& command);
void defineFactory(common::CommandLine& command);
void definePackageManager(common::CommandLine& command);

} // namespace vset

#endif
