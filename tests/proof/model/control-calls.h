// Between the control libraries of the model's test and the program that loads them.
#ifndef TESTS_PROOF_MODEL_CONTROL_CALLS_H
#define TESTS_PROOF_MODEL_CONTROL_CALLS_H

// A library was asked; `out` is where an answer other than the result goes, as the function's header has it.
extern "C" int proofControlCalled(const char* module, const char* function, const char* arguments, void* out);

#endif
