// Runs a program to its end and keeps what it says.
//
// Those who start programs for something else have their own way: vset/television/process.h looks after one
// while it runs, vset/console/program.h does not wait for it, the one of fwmod (tools/fwmod/files.h) goes
// when fwmod does, and what is measured (bench/child.h) says nothing to anybody.
#ifndef COMMON_PROCESS_RUN_PROGRAM_H
#define COMMON_PROCESS_RUN_PROGRAM_H

#include <string>
#include <vector>

namespace common
{

struct Outcome {
    int status = -1; // as a shell tells it: 128 + signal when one ended it; -1 when it could not be started
    std::string out;
    std::string err; // why, when it could not be started
};

// Found in PATH, with nothing to read; in this process's own directory when none is given. Any thread. Throws
// Failure when the system has no descriptors left.
Outcome runProgram(const std::vector<std::string>& words, const std::string& directory = "");

} // namespace common

#endif
