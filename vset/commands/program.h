// The command `vset`, which is two programs: `vset` itself makes and runs sets, and `vset-control`, beside
// it, watches and steers those that run, over their bus. What a bus needs is a third of a start's time, and a
// set starts without it.
#ifndef VSET_COMMANDS_PROGRAM_H
#define VSET_COMMANDS_PROGRAM_H

#include <map>
#include <string>

#include "common/terminal/command-line.h"

namespace vset
{

// Commands by their names, each as a function that declares what it takes and does.
using Definitions = std::map<std::string, void (*)(common::CommandLine& command)>;

// Reads the arguments and does what they say; the exit status. What is not in `own` is left to `other`.
int runCommandLine(int argc, char** argv, const Definitions& own, const char* other);

} // namespace vset

#endif
