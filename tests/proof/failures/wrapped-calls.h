// What the daemon holds at this moment of what it has to give back, by the calls that the linker leads past
// us (wrapped-calls.cpp).
#ifndef TESTS_PROOF_FAILURES_WRAPPED_CALLS_H
#define TESTS_PROOF_FAILURES_WRAPPED_CALLS_H

#include <string>
#include <vector>

namespace proof
{

// Open files, by their paths, and what else is open; empty: nothing.
std::vector<std::string> heldByDaemon();

} // namespace proof

#endif
