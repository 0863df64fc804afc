// Which calls of a run fail. A run is written "STORY: CALL#N=RESULT ...": the N-th time the daemon makes that
// call it has that result.
#ifndef TESTS_PROOF_FAILURES_PLAN_H
#define TESTS_PROOF_FAILURES_PLAN_H

#include <string>
#include <vector>

namespace proof
{

struct Fault {
    std::string call;
    unsigned int occurrence = 0;
    std::string result;
};
std::string textOf(const Fault& fault);
Fault faultFrom(const std::string& text); // std::invalid_argument: it is none

struct Run {
    std::string story;
    std::vector<Fault> faults;
};
std::string textOf(const Run& run);
Run runFrom(const std::string& text); // throws as faultFrom

// A call that was made, and what it may fail with.
struct Point {
    std::string call;
    unsigned int occurrence;
    std::vector<std::string> results;
};

namespace plan
{

// From now on, in this process. Without faults the calls are counted instead.
void start(const Run& run);
const std::vector<Point>& points(); // until now
const std::vector<Fault>& faults(); // that have happened

} // namespace plan

} // namespace proof

#endif
