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

// A number that is taken after each cycle.
class Course
{
public:
    void take(double value) { values_.push_back(value); }
    std::size_t size() const { return values_.size(); }
    double latest() const { return values_.back(); } // not before the first
    double first()
        const; // the middle one of the first tenth, once the first fifth, in which caches fill, has passed
    double last() const; // of the last tenth
    double highest() const;
    // By the line that fits best behind the first fifth: how much it grows in so many cycles.
    double growthIn(double cycles) const;

private:
    std::vector<double> settled() const;
    std::vector<double> values_;
};

} // namespace proof

#endif
