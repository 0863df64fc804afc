// Between the control libraries of the tests and the program that loads them.
#ifndef TESTS_PROOF_PROCESS_CONTROL_CALLS_H
#define TESTS_PROOF_PROCESS_CONTROL_CALLS_H

extern "C" {

// A library was asked; `out` is where an answer other than the result goes, as the function's header has it.
int proofControlCalled(const char* module, const char* function, const char* arguments, void* out);

// A library was handed the content of an encrypted image.
int proofImageWritten(const char* module, const unsigned char* data, int length);
}

#endif
