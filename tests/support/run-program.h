// For tests that run a program as a person would.
#ifndef TESTS_SUPPORT_RUN_PROGRAM_H
#define TESTS_SUPPORT_RUN_PROGRAM_H

#include "common/process/program.h"
#include "common/process/run-program.h"

using common::Outcome;
using common::runProgram;
using common::shellStatus;

#endif
