// What must stay as it is from cycle to cycle: files, processes, descriptors, memory.
#ifndef TESTS_PROOF_SOAK_STEADINESS_H
#define TESTS_PROOF_SOAK_STEADINESS_H

#include <cstddef>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "include/tarnwick/television.h"

namespace proof
{

struct ServiceState {
    std::size_t processes = 0;
    std::size_t descriptors = 0;
    std::size_t memory = 0; // resident, bytes
};

// Processes of the running set by their names, its launcher outside of it included: "vset" is PID 1, "vset
// run" the launcher.
std::map<std::string, ServiceState> servicesOf(const tarnwick::Television& tv);

// Paths below the set's directory. What is different in each boot, or is meant to grow up to a limit, is not
// among them.
std::set<std::string> filesOf(const tarnwick::Television& tv);

// Loop devices of this machine that have a file of the set.
std::size_t loopDevicesOf(const tarnwick::Television& tv);

// In so many cycles all that a service keeps of the latest is full: the console's 4,000 records of the log,
// of which a cycle makes some thirty, and the 500 entries of each history, to which more than half of the
// cycles add one.
constexpr std::size_t kCyclesToFill = 1000;

// A number that is taken after each cycle.
class Course
{
public:
    void take(double value) { values_.push_back(value); }
    std::size_t size() const { return values_.size(); }
    double latest() const { return values_.back(); } // not before the first
    // The middle one of the first tenth, once kCyclesToFill have passed; in a course that is shorter, a fifth
    // of it.
    double first() const;
    double last() const; // of the last tenth
    double highest() const;
    // How much it has grown since, by the line that fits best.
    double growth() const;

private:
    std::vector<double> settled() const;
    std::vector<double> values_;
};

} // namespace proof

#endif
