// What a control library answers when it does not do as it was asked: each of the ways the interface knows.
#ifndef TESTS_PROOF_PROCESS_CONTROL_ANSWERS_H
#define TESTS_PROOF_PROCESS_CONTROL_ANSWERS_H

#include "tests/proof/process/failing.h"

namespace proof::control
{

// How the function of the module is to answer; null: as it should.
const failing::Result* ask(const char* function, const char* module);

// Answers so: writes what goes into `out`, and returns the function's own result.
int answer(const char* function, const failing::Result& result, void* out);

} // namespace proof::control

#endif
