// Runs of the daemon in which calls fail, each in a process of its own.
#ifndef TESTS_PROOF_FAILURES_CAMPAIGN_H
#define TESTS_PROOF_FAILURES_CAMPAIGN_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "common/files/temporary-directory.h"
#include "tests/proof/failures/invariants.h"
#include "tests/proof/failures/plan.h"

namespace proof
{

struct Verdict {
    Run run;
    std::vector<Fault> reached; // of its faults
    std::vector<Breach> breaches;
    std::vector<Point> points;      // of a run without faults
    std::vector<std::string> trace; // where it is wanted
};

class FailureCampaign
{
public:
    explicit FailureCampaign(unsigned int processes); // so many at once

    Verdict run(const Run& one, bool isTraced = false);
    // In the order of the runs.
    void runAll(const std::vector<Run>& runs, const std::function<void(const Verdict&)>& tell);

private:
    common::TemporaryDirectory directory{"tarnwick-failures-"};
    unsigned int count;
};

// Every single failure of what a run without one has called.
std::vector<Run> singlesOf(const Verdict& first);
// So many pairs, the same ones for a seed.
std::vector<Run> pairsOf(const std::vector<Verdict>& firsts, unsigned int count, uint64_t seed);

} // namespace proof

#endif
