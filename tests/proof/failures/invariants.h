// What holds at the end of every run, whatever has failed in it.
#ifndef TESTS_PROOF_FAILURES_INVARIANTS_H
#define TESTS_PROOF_FAILURES_INVARIANTS_H

#include <string>
#include <vector>

#include "tests/proof/failures/stories.h"

namespace proof
{

struct Breach {
    std::string invariant;
    std::string text;
};

struct Invariant {
    const char* name;
    const char* promise;
};
const std::vector<Invariant>& invariants(); // for --list

// In the process of the run, after its end.
std::vector<Breach> breachesIn(const Story& story, const std::vector<std::string>& trace);

// Whether nothing failed but what is made good: a thread that is started a moment later, a wait that a signal
// ended.
bool isToldAllTheSame(const Story& story, const std::vector<std::string>& trace);

// Where the story did not happen as it is told.
std::vector<Breach> missedMilestones(const Story& story, const std::vector<std::string>& trace);

} // namespace proof

#endif
