// Where an invariant does not hold because the service is meant to go on like that: each with its reason.
#ifndef TESTS_PROOF_FAILURES_EXCEPTIONS_H
#define TESTS_PROOF_FAILURES_EXCEPTIONS_H

#include <string>
#include <vector>

#include "tests/proof/failures/invariants.h"
#include "tests/proof/failures/plan.h"

namespace proof
{

struct Exception {
    const char* invariant;
    const char* text;   // of the breach, in part
    const char* call;   // which has failed, at least once
    const char* beside; // and which has failed as well; null: none
    const char* story;  // null: in any
    const char* reason;
};
const std::vector<Exception>& exceptions();

// The one that the breach is; null: it is none.
const Exception* exceptionOf(const Breach& breach, const Run& run);

} // namespace proof

#endif
