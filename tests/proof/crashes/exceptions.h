// Where a promise does not hold, and cannot: each with its reason.
#ifndef TESTS_PROOF_CRASHES_EXCEPTIONS_H
#define TESTS_PROOF_CRASHES_EXCEPTIONS_H

#include <vector>

#include "tests/proof/crashes/lane.h"

namespace proof
{

struct CrashException {
    const char* promise;
    const char* text; // of the breach, in part
    const char* reason;
};
const std::vector<CrashException>& crashExceptions();

// The one that the breach is; null: it is none. Only failing calls have any.
const CrashException* crashExceptionOf(const CrashBreach& breach, const Point& point);

} // namespace proof

#endif
